#include "companion/machine_state.h"

#include <utility>

#include "companion/tool_log.h"
#include "install/constants.h"
#include "install/msi_products.h"
#include "inventory/installed_version.h"

namespace repair
{
Installed ReadInstalled()
{
    Installed installed;
    installed.desktopVersion = GetInstalledAppVersion();
    installed.desktopDriverVersion = GetInstalledAppDriverVersion();
    installed.edition = FindEdition(installed.desktopVersion);
    const std::pair<const char*, std::wstring> families[] = {
        {"Halden", kHaldenUpgradeCode}, {"DVR", kDvrUpgradeCode}, {"PXL", kPxlUpgradeCode}};
    for (const auto& [family, upgradeCode] : families)
    {
        if (!FindRelatedProductPackages(upgradeCode).empty())
        {
            installed.families.emplace_back(family);
        }
    }
    return installed;
}

MachineState ReadMachineState()
{
    MachineState state;
    TakeToolLog();  // drops earlier lines
    state.drivers = EnumerateDisplayDrivers();
    state.installed = ReadInstalled();
    state.lines = TakeToolLog();
    return state;
}
}  // namespace repair
