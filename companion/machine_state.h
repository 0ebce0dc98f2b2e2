// What the tool would find on this machine, read with the tool's own code. Changes nothing and writes no log.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "app/edition.h"
#include "companion/last_run.h"
#include "inventory/driver_enumeration.h"

namespace repair
{
// What is installed.
struct Installed
{
    Edition edition;                    // the one that the tool compares with the driver
    std::wstring desktopVersion;        // HLVersion, of the desktop edition; may be left over from a removed one
    std::wstring desktopDriverVersion;  // DriverVersion beside it
    std::uint32_t products = 0;         // kMainProduct and so on: the families with an installed product
};

struct MachineState
{
    std::list<DisplayDriverInfo> drivers;  // the first one decides
    Installed installed;
    std::vector<std::string> lines;  // what the tool would have logged meanwhile, in UTF-8
};

// Both may be called any number of times, and throw only on failed allocation.
Installed ReadInstalled();
MachineState ReadMachineState();
}  // namespace repair
