// Puts the edition in place that matches the active driver.
#pragma once

#include <string>

#include "app/run.h"

namespace repair
{
// Installs the desktop edition from the driver package in `driverFolder` or from the download server's folder for
// `releasePrefix`; or the Store edition when that is the one in use or asked for. Shows the outcome unless silent and
// finishes the run. Returns the exit code: the install's result, or -1 when there is no installer to be had.
// Throws std::filesystem::filesystem_error when the driver folder cannot be looked at.
int Repair(Run& run, const std::wstring& driverFolder, const std::wstring& releasePrefix, bool useStore);
}  // namespace repair
