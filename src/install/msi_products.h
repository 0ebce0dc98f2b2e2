// Windows Installer products of the application. The caller has set the user-interface level.
#pragma once

#include <cstdint>
#include <list>
#include <string>

namespace repair
{
// The cached packages of all installed products of an upgrade code, in the installer's order. A product whose package
// cannot be told (or has a path of 260 characters or more) is left out. Throws only on failed allocation.
std::list<std::wstring> FindRelatedProductPackages(std::wstring upgradeCode);

// True when a product of the main component family with a readable package path is installed.
bool IsDesktopEditionInstalled();

// Installs a package into `installDir`, or into the package's default folder when that is empty. Returns 0 for success,
// also when a reboot is needed (which is logged); otherwise the Windows Installer's code, which is not logged.
std::int32_t InstallMsiPackage(std::wstring packagePath, std::wstring installDir);

// The folder that the user chose for the application, or an empty text when it is the default one or not known.
// Never throws, logs nothing.
std::wstring GetCustomInstallDir() noexcept;
}  // namespace repair
