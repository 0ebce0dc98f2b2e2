// The maker's display adapters and the drivers that are active on them.
#pragma once

#include <list>
#include <string>

#include <windows.h>

namespace repair
{
// One adapter of the maker with its active driver.
struct DisplayDriverInfo
{
    std::wstring instanceId;      // device instance id, the hardware path of the adapter
    std::wstring driverKeyPath;   // registry key of the active driver, below HKEY_LOCAL_MACHINE
    std::wstring releaseVersion;  // release of the active driver exactly as stored
    std::wstring releaseBase;     // the same up to its first "-"
    std::wstring driverFolder;    // driver-store folder of the package of that release; empty when none has it
    std::wstring description;     // device description; empty when it could not be read
    DWORD problemCode = 0;        // Device Manager's problem code; 0 when none or not readable
};

// The present adapters of the maker, the greatest releaseBase first (by UTF-16 code units); equal ones keep the
// system's order. Failures are logged and leave the adapter out, or give an empty list when no adapter can be looked
// at. Throws only what memory allocation and the log throw.
std::list<DisplayDriverInfo> EnumerateDisplayDrivers();
}  // namespace repair
