// Installs a given installer without any of the checks, for another program.
#pragma once

#include <cstdint>
#include <string>

namespace repair
{
// Installs the desktop edition from the file and starts the application. If the desktop edition was missing, also
// removes the Store edition and records that in the registry. Returns 0 after the install sequence, whatever its
// result, or -1 if it threw an exception, which is logged and shown even when silent. Throws RegKeyError if the
// installed application has not recorded its location.
std::int32_t RunDirectInstall(std::wstring installerPath);
}  // namespace repair
