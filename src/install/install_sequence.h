// Turns an installer file into an installed desktop edition.
#pragma once

#include <cstdint>
#include <string>

namespace repair
{
// Unpacks the installer, stops the application, removes its products and installs the new ones: the main package
// always, the others where they were present before or with `installAllComponents`. Blocks without a time limit.
// Returns 2 when the installer has unpacked no main package (nothing was stopped or removed then), otherwise the result
// of the main package: 0 for success, also when a reboot is needed, else the Windows Installer's code. All
// other results are only logged. Exceptions of the file system and of allocation pass through.
// From here on every Windows Installer call of the process runs without user interface.
std::int32_t RunInstallSequence(std::wstring installerPath, bool installAllComponents);

// RunInstallSequence for the families that are present; a standard exception is logged and gives -1.
std::int32_t InstallWithExceptionGuard(const std::wstring& installerPath);
}  // namespace repair
