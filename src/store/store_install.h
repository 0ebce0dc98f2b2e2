// Installation of the application's Store edition.
#pragma once

#include <cstdint>

#include <windows.h>

namespace repair
{
// Has the Store download and install the application and waits for it without a limit. `owner` is the window that the
// Store's own windows belong to; it may be null. Returns 0 for success, -1 when the Store did not complete
// the installation, or the HRESULT of a failed call. Failed calls are logged, the outcome is not. Never throws.
std::int32_t InstallStoreApplication(HWND owner) noexcept;

// The same, but lets the errors of the Store's calls out: WinrtError or a standard exception.
std::int32_t RequestStoreInstall(HWND owner);
}  // namespace repair
