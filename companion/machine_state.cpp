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
    const std::pair<std::uint32_t, std::wstring> families[] = {
        {kMainProduct, kHaldenUpgradeCode}, {kDvrProduct, kDvrUpgradeCode}, {kPxlProduct, kPxlUpgradeCode}};
    for (const auto& [product, upgradeCode] : families)
    {
        installed.products |= FindRelatedProductPackages(upgradeCode).empty() ? 0 : product;
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
