// Installation of the application's Store edition.
#pragma once

#include <cstdint>

#include <windows.h>

namespace repair
{
// Lets the Store download and install the application and waits without a time limit. `owner` is the owner window of
// the Store's windows; it may be null. Returns 0 for success, -1 if the Store did not complete the installation, or the
// HRESULT of a failed call. Logs failed calls, not the result. Never throws.
std::int32_t InstallStoreApplication(HWND owner) noexcept;

// The same, but throws the errors of the Store's calls: WinrtError or a standard exception.
std::int32_t RequestStoreInstall(HWND owner);
}  // namespace repair
