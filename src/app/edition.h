// The installed edition, and the rule that compares it with a driver. The companion asks the same questions.
#pragma once

#include <string>

namespace repair
{
// The edition that the driver is compared with.
struct Edition
{
    bool isInstalled = false;
    bool isStore = false;
    std::wstring version;
};

// Returns the desktop edition, which has `desktopVersion`, before the Store edition; without either, a Store edition
// 0.0 that is not installed. Logs what the Store query logs; throws only on failed allocation.
Edition FindEdition(const std::wstring& desktopVersion);

// Returns the first five characters: releases are compared by them, and the download server names its folders by them.
std::wstring ReleasePrefix(const std::wstring& release);

// True if an installed version belongs to a release: equal to the whole release, or to the release's prefix, or equal
// in its own prefix; letters without regard to case.
bool IsSameRelease(const std::wstring& releaseBase, const std::wstring& installedVersion);
}  // namespace repair
