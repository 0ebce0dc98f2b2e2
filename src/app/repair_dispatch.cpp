#include "app/repair_dispatch.h"

#include <exception>
#include <string>
#include <utility>

#include <windows.h>

#include "acquisition/download.h"
#include "acquisition/local_installer.h"
#include "app/switches.h"
#include "base/held_installer.h"
#include "base/log.h"
#include "base/text.h"
#include "install/install_sequence.h"
#include "store/store_install.h"
#include "store/store_packages.h"
#include "ui/result_message.h"

namespace repair
{
namespace
{
void ShowStatus(Run& run, int status)
{
    if (!Silent)
    {
        SetStatus(run.window, status);
    }
}

void ShowInstallResult(const Run& run, bool isInstalled)
{
    if (!Silent)
    {
        ShowResultMessage(run.window, isInstalled ? kMessageFinished : kMessageInstallFailed);
    }
}

// Returns no installer on failure; an exception counts as one.
HeldInstaller Download(const std::wstring& release)
{
    try
    {
        return DownloadInstaller(release);
    }
    catch (const std::exception& error)
    {
        LogLine(L"\tException occured during the download of dwx2_install.exe. %s", ExceptionText(error).c_str());
        return {};
    }
}

// The installer, held open; none if none is found or downloaded.
HeldInstaller AcquireInstaller(Run& run, const std::wstring& driverFolder, const std::wstring& releasePrefix)
{
    HeldInstaller installer(FindLocalInstaller(driverFolder));
    if (!installer.path.empty())
    {
        LogLine(L"Found dwx2-install.exe at [%s]", installer.path.c_str());
        return installer;
    }
    LogLine(L"Unable to find dwx2-install.exe at [%s]. Downloading dwx2_install.exe for [%s] from web.",
            driverFolder.c_str(), releasePrefix.c_str());
    ShowStatus(run, kStatusDownloading);
    return Download(releasePrefix);
}

int InstallDesktopEdition(Run& run, const std::wstring& driverFolder, const std::wstring& releasePrefix)
{
    HeldInstaller installer = AcquireInstaller(run, driverFolder, releasePrefix);
    if (installer.path.empty())
    {
        return ExitEarly(run, L"Unable to download dwx2_install.exe from web. Exiting.", kMessageDownloadFailed);
    }
    ShowStatus(run, kStatusInstalling);
    const int result = InstallWithExceptionGuard(std::move(installer));
    if (result == 0)
    {
        RemoveStorePackages();  // only one edition stays on the machine
    }
    ShowInstallResult(run, result == 0);
    FinishRun(run);
    return result;
}

int InstallStoreEdition(Run& run)
{
    ShowStatus(run, kStatusInstalling);
    LogLine(L"Attempting to download and install the UWP version of VLT.");
    const int result = InstallStoreApplication(run.window.dialog);
    WriteLog(result == 0 ? L"Successfully installed the UWP version of VLT"
                         : L"failed to install the UWP version of VLT");
    ShowInstallResult(run, result == 0);
    FinishRun(run);
    return result;
}
}  // namespace

int Repair(Run& run, const std::wstring& driverFolder, const std::wstring& releasePrefix, bool useStore)
{
    if (ForceUwp || useStore)
    {
        return InstallStoreEdition(run);
    }
    return InstallDesktopEdition(run, driverFolder, releasePrefix);
}
}  // namespace repair
