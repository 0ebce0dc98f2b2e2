// The main flow: does the installed application belong to the active driver's release?
#pragma once

#include <string>

namespace repair
{
// Runs the check and, when needed or forced, the repair; shows the status window and the outcome unless silent. Returns
// the process exit code: -1 for an early exit, else the repair's result. Exceptions that no step catches pass through.
int RunCompatibilityCheck();

// The first five characters: what releases are compared by and how the download server's folders are called.
std::wstring ReleasePrefix(const std::wstring& release);

// True when an installed version belongs to a release: equal as a whole, equal to the release's prefix, or equal in its
// own prefix; letters without regard to case.
bool IsSameRelease(const std::wstring& releaseBase, const std::wstring& installedVersion);
}  // namespace repair
