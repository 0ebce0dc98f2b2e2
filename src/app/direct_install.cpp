#include "app/direct_install.h"

#include <exception>
#include <system_error>
#include <utility>

#include <windows.h>

#include "app/switches.h"
#include "base/held_installer.h"
#include "base/log.h"
#include "base/registry.h"
#include "base/text.h"
#include "install/constants.h"
#include "install/install_sequence.h"
#include "install/msi_products.h"
#include "install/process_launcher.h"
#include "store/store_packages.h"
#include "ui/result_message.h"
#include "ui/status_window.h"

namespace repair
{
namespace
{
constexpr wchar_t kMarkerKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\";
constexpr wchar_t kMarkerValue[] = L"VLTUWPReplaced";
constexpr DWORD kMarkerData = 1;
constexpr wchar_t kApplication[] = L"\\CorvelSoftware.exe";
constexpr DWORD kApplicationWaitMs = 30'000;

void WriteMarker()
{
    HKEY handle = nullptr;
    LSTATUS status =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, kMarkerKey, 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &handle, nullptr);
    if (status != ERROR_SUCCESS)
    {
        throw RegKeyError(status, std::system_category(), "Unable to get create registry key");
    }
    const RegistryKey key(handle);
    status = RegSetValueExW(key.Get(), kMarkerValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&kMarkerData),
                            sizeof(kMarkerData));
    if (status != ERROR_SUCCESS)
    {
        throw RegKeyError(status, std::system_category(),
                          FormatRegistryWriteError(kMarkerValue, static_cast<int>(kMarkerData)));
    }
}

// Only one edition stays on the machine; the marker records that the Store edition was removed.
void ReplaceStoreEdition()
{
    RemoveStorePackages();
    try
    {
        WriteMarker();
    }
    catch (...)  // the application works without the marker
    {
        LogLine(L"Unable to create VLTUWPReplaced registry key SOFTWARE\\Orrel Technologies\\Install\\");
    }
}

void StartApplication()
{
    const std::wstring location = ReadMachineString(kApplicationInstallKey, kLocationValue);
    LaunchProcess(location + kApplication, L"", kApplicationWaitMs, nullptr);
}
}  // namespace

std::int32_t RunDirectInstall(std::wstring installerPath)
{
    HeldInstaller installer(std::move(installerPath));
    StatusWindow window;
    StartStatusWindow(window, AppInstance, false);  // shown whatever the switches say
    SetStatus(window, kStatusInstalling);

    const bool wasMissing = !IsDesktopEditionInstalled();
    std::int32_t result = -1;
    try
    {
        result = RunInstallSequence(std::move(installer), wasMissing);
    }
    catch (const std::exception& error)
    {
        LogLine(L"\tException occured during installation. %s", ExceptionText(error).c_str());
        ShowResultMessage(window, kMessageUpdateFailed);  // shown whatever the switches say
        StopStatusWindow(window);
        return -1;
    }
    catch (...)
    {
        StopStatusWindow(window);
        throw;
    }
    if (result == 0 && wasMissing)
    {
        ReplaceStoreEdition();
    }
    StartApplication();
    StopStatusWindow(window);
    return 0;
}
}  // namespace repair
