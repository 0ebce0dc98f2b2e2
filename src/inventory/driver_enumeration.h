// The maker's display adapters and their active drivers.
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
    std::wstring driverFolder;    // driver-store folder of the package of that release; empty if no package has it
    std::wstring description;     // device description; empty if it cannot be read
    DWORD problemCode = 0;        // Device Manager's problem code; 0 if there is none or it cannot be read
};

// Returns the present adapters of the maker, the highest releaseBase first (by UTF-16 code units); equal ones keep the
// system's order. An adapter whose release cannot be read is left out, after logging; the list is empty if Windows
// lists no devices. Throws only what memory allocation and the log throw.
std::list<DisplayDriverInfo> EnumerateDisplayDrivers();
}  // namespace repair
