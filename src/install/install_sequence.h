// Installs the desktop edition from an installer file.
#pragma once

#include <cstdint>
#include "base/held_installer.h"

namespace repair
{
// Unpacks the installer and releases it after its end, stops the application, removes its products and installs the
// new ones: always the main package, the others if they were present before or with `installAllComponents`. Blocks
// without a time limit. From here on every Windows Installer call of the process runs without user interface. Returns 2
// if the installer unpacks no main package (nothing is stopped or removed then), otherwise the result of the main
// package: 0 for success, also if a reboot is needed, or the Windows Installer's code. All other results are only
// logged. Exceptions of the file system and of allocation pass through.
std::int32_t RunInstallSequence(HeldInstaller installer, bool installAllComponents);

// RunInstallSequence for the families that are present; a standard exception is logged and gives -1.
std::int32_t InstallWithExceptionGuard(HeldInstaller installer);
}  // namespace repair
