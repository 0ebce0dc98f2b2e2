// Recovery of products that a repair removed and could not install again: what is kept, and how it is used.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "companion/last_run.h"
#include "companion/safe_place.h"

namespace repair
{
// Returns the installer of a run that has lost products: the one that its log names, its download, a kept one, or the
// one in the driver's package. Empty if there is none of them.
std::wstring FindInstaller(const SafePlace& place, const std::optional<std::wstring>& log,
                           const std::wstring& driverFolder);

// Keeps the temporary folder, in which the optional packages are unpacked, and the installer in it, or a copy of one
// that is elsewhere. Sets the path in `run`. If the disk is too full for a copy, that is where the installer is.
void KeepInstaller(const SafePlace& place, std::wstring installer, LastRun& run);

struct PackagesResult
{
    std::string codes;  // of Windows Installer, for people
    bool needsRestart = false;
    bool isBusy = false;  // Windows Installer was
};

// True if the packages of these optional products are kept.
bool HasKeptPackages(const SafePlace& place, std::uint32_t products);

// Installs the kept packages of optional products. Blocks without a time limit; Windows Installer shows nothing.
PackagesResult InstallKeptPackages(const SafePlace& place, std::uint32_t products);
}  // namespace repair
