// Installs a given installer without any of the checks, for another program that knows what it wants.
#pragma once

#include <cstdint>
#include <string>

namespace repair
{
// Installs the desktop edition from the file, removes the Store edition when the desktop edition is new (and leaves a
// marker in the registry saying so), and starts the application. Returns 0 when the sequence ran to its
// end, whatever the install's result was, and -1 when it raised an exception, which is logged and shown even when
// silent. Throws RegKeyError when the installed application has not recorded its location.
std::int32_t RunDirectInstall(std::wstring installerPath);
}  // namespace repair
