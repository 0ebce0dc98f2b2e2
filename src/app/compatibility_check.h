// The main flow: does the installed application belong to the active driver's release?
#pragma once

#include <string>

namespace repair
{
// Runs the check and, if needed or forced, the repair. Shows the status window and the result message unless silent.
// Returns the process exit code: -1 for an early exit, otherwise the repair's result. Uncaught exceptions pass through.
int RunCompatibilityCheck();

// Returns the first five characters: releases are compared by them, and the download server names its folders by them.
std::wstring ReleasePrefix(const std::wstring& release);

// True if an installed version belongs to a release: equal to the whole release, or to the release's prefix, or equal
// in its own prefix; letters without regard to case.
bool IsSameRelease(const std::wstring& releaseBase, const std::wstring& installedVersion);
}  // namespace repair
