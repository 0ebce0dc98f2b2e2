#include "app/compatibility_check.h"

#include <cwchar>
#include <list>

#include <windows.h>

#include "app/repair_dispatch.h"
#include "app/run.h"
#include "app/switches.h"
#include "base/log.h"
#include "install/msi_products.h"
#include "inventory/driver_enumeration.h"
#include "inventory/installed_version.h"
#include "store/store_packages.h"
#include "ui/result_message.h"

namespace repair
{
namespace
{
constexpr wchar_t kInstanceEvent[] = L"Tavik_Software_Repair_Tool_Mutex";  // an event all the same
constexpr size_t kReleasePrefixCharacters = 5;

bool EqualNoCase(const std::wstring& a, const std::wstring& b)
{
    return _wcsicmp(a.c_str(), b.c_str()) == 0;
}

// False when another instance holds the event.
bool TakeInstanceEvent(Run& run)
{
    run.instanceEvent = EventHandle(CreateEventW(nullptr, TRUE, FALSE, kInstanceEvent));
    return GetLastError() != ERROR_ALREADY_EXISTS;
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

enum class Edition
{
    kDesktop,
    kStore,
    kNone,
};

// Which edition the comparison is made against; for the Store edition its version replaces `installedVersion`.
Edition FindEdition(std::wstring& installedVersion)
{
    if (IsDesktopEditionInstalled())
    {
        return Edition::kDesktop;
    }
    LogLine(L"User does not desktop VLT installed.");
    const PackageVersion version = QueryStorePackageVersion();
    if (version.Major == 0 && version.Minor == 0 && version.Build == 0 && version.Revision == 0)
    {
        if (!Force)
        {
            return Edition::kNone;
        }
        LogLine(L"User does not have VLT installed.");
    }
    installedVersion = ReleasePrefix(std::to_wstring(version.Minor) + L"." + std::to_wstring(version.Build));
    return Edition::kStore;
}
}  // namespace

std::wstring ReleasePrefix(const std::wstring& release)
{
    return release.substr(0, kReleasePrefixCharacters);
}

bool IsSameRelease(const std::wstring& releaseBase, const std::wstring& installedVersion)
{
    const std::wstring releasePrefix = ReleasePrefix(releaseBase);
    return EqualNoCase(releaseBase, installedVersion) || EqualNoCase(releasePrefix, installedVersion) ||
           EqualNoCase(releasePrefix, ReleasePrefix(installedVersion));
}

int RunCompatibilityCheck()
{
    Run run;
    StartStatusWindow(run.window, AppInstance, Silent);
    if (!TakeInstanceEvent(run))
    {
        return ExitEarly(run, L"Another instance is running. Exiting.", kMessageAnotherInstance);
    }

    std::wstring installedVersion = GetInstalledAppVersion();
    const std::wstring installedDriverVersion = GetInstalledAppDriverVersion();
    LogLine(L"Currently installed VLT is version [%s] from driver version [%s]", installedVersion.c_str(),
            installedDriverVersion.c_str());

    const std::list<DisplayDriverInfo> drivers = ListDrivers();
    if (drivers.empty())
    {
        return ExitEarly(run, L"Unable to find installed Tavik display adapters. Exiting.", kMessageNoDriver);
    }
    const Edition edition = FindEdition(installedVersion);
    if (edition == Edition::kNone)
    {
        return ExitEarly(run, L"User does not have VLT installed. Exiting.", kMessageNotInstalled);
    }

    const DisplayDriverInfo& driver = drivers.front();  // the greatest release decides for the whole machine
    if (IsSameRelease(driver.releaseBase, installedVersion))
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
    return Repair(run, driver.driverFolder, ReleasePrefix(driver.releaseBase), edition == Edition::kStore);
}
}  // namespace repair
