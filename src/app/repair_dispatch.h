// Installs the edition that matches the active driver.
#pragma once

#include <string>

#include "app/run.h"

namespace repair
{
// Installs the Store edition if it is the one in use or was asked for; otherwise the desktop edition, from the driver
// package in `driverFolder` or from the download server's folder for `releasePrefix`. Shows the result unless silent
// and finishes the run. Returns the exit code: the install's result, or -1 if no installer is found or downloaded.
// Throws std::filesystem::filesystem_error if the driver folder cannot be searched.
int Repair(Run& run, const std::wstring& driverFolder, const std::wstring& releasePrefix, bool useStore);
}  // namespace repair
