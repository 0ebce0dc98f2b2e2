// Windows Installer products of the application. The caller sets the user-interface level.
#pragma once

#include <cstdint>
#include <list>
#include <string>

namespace repair
{
// Returns the cached packages of all installed products of an upgrade code, in the installer's order. A product whose
// package cannot be read (or has a path of 260 characters or more) is left out. Throws only on failed allocation.
std::list<std::wstring> FindRelatedProductPackages(std::wstring upgradeCode);

// True if a product of the main component family with a readable package path is installed.
bool IsDesktopEditionInstalled();

// Installs a package into `installDir`, or into the package's default folder if that is empty. Returns 0 for success,
// also if a reboot is needed (which is logged); otherwise the Windows Installer's code, which is not logged.
std::int32_t InstallMsiPackage(std::wstring packagePath, std::wstring installDir);

// Returns the folder that the user chose for the application, or an empty text if it is the default one or not known.
// Never throws, logs nothing.
std::wstring GetCustomInstallDir() noexcept;
}  // namespace repair
