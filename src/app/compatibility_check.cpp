#include "app/compatibility_check.h"

#include <list>
#include <string>

#include <windows.h>

#include "app/edition.h"
#include "app/repair_dispatch.h"
#include "app/run.h"
#include "app/switches.h"
#include "base/log.h"
#include "inventory/driver_enumeration.h"
#include "inventory/installed_version.h"
#include "ui/result_message.h"

namespace repair
{
namespace
{
constexpr wchar_t kInstanceEvent[] = L"Tavik_Software_Repair_Tool_Mutex";  // an event, in spite of its name

// False if another instance holds the event.
bool TakeInstanceEvent(Run& run)
{
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, kInstanceEvent);
    const DWORD error = GetLastError();
    run.instanceEvent = EventHandle(event);
    return error != ERROR_ALREADY_EXISTS;
}

std::list<DisplayDriverInfo> ListDrivers()
{
    std::list<DisplayDriverInfo> drivers = EnumerateDisplayDrivers();
    LogLine(L"Currently installed drivers on system:");
    for (const DisplayDriverInfo& driver : drivers)
    {
        LogLine(L"\t [%s] [%s] [%s]", driver.description.c_str(), driver.releaseVersion.c_str(),
                driver.driverFolder.c_str());
    }
    return drivers;
}
}  // namespace

int RunCompatibilityCheck()
{
    Run run;
    StartStatusWindow(run.window, AppInstance, Silent);
    if (!TakeInstanceEvent(run))
    {
        return ExitEarly(run, L"Another instance is running. Exiting.", kMessageAnotherInstance);
    }

    const std::wstring desktopVersion = GetInstalledAppVersion();
    const std::wstring desktopDriverVersion = GetInstalledAppDriverVersion();
    LogLine(L"Currently installed VLT is version [%s] from driver version [%s]", desktopVersion.c_str(),
            desktopDriverVersion.c_str());

    const std::list<DisplayDriverInfo> drivers = ListDrivers();
    if (drivers.empty())
    {
        return ExitEarly(run, L"Unable to find installed Tavik display adapters. Exiting.", kMessageNoDriver);
    }
    const Edition edition = FindEdition(desktopVersion);
    if (!edition.isInstalled)
    {
        if (!Force)
        {
            return ExitEarly(run, L"User does not have VLT installed. Exiting.", kMessageNotInstalled);
        }
        LogLine(L"User does not have VLT installed.");
    }

    const DisplayDriverInfo& driver = drivers.front();  // the highest release decides for the whole machine
    if (IsSameRelease(driver.releaseBase, edition.version))
    {
        if (!Force)
        {
            return ExitEarly(run,
                             L"Currently installed version of VLT is from the same release as the active driver. "
                             L"Exiting.",
                             kMessageAlreadyCompatible);
        }
        LogLine(L"Currently installed version of VLT is from the same release as the active driver.");
    }
    return Repair(run, driver.driverFolder, ReleasePrefix(driver.releaseBase), edition.isStore);
}
}  // namespace repair
