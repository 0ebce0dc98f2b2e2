#include "install/component_stop.h"

#include <filesystem>
#include <iterator>
#include <string>

#include <windows.h>

#include "base/registry.h"
#include "install/constants.h"
#include "install/process_launcher.h"

namespace repair
{
namespace
{
// Image names of the application's programs, killed in this order.
constexpr const wchar_t* ComponentList[] = {
    L"hlcmd.exe", L"CorvelSettings.exe", L"Corvelsoftware.exe", L"tavikow.exe", L"TavikLPServ.exe",
};

void AskApplicationToExit()
{
    try
    {
        const std::wstring location = ReadMachineString(kApplicationInstallKey, kLocationValue);
        LaunchProcess(location + kCommandTool, kCommandToolExit, kProgramWaitMs, nullptr);
    }
    catch (...)  // not installed, or not completely
    {
    }
}
}  // namespace

void StopRunningComponents()
{
    AskApplicationToExit();

    wchar_t systemFolder[kPathCharacters] = {};
    GetSystemDirectoryW(systemFolder, static_cast<UINT>(std::size(systemFolder)));
    const std::wstring killProgram = (std::filesystem::path(systemFolder) / kKillProgram).wstring();
    for (const wchar_t* name : ComponentList)
    {
        // By design with a blank in front; the log shows the parameters like this.
        const std::wstring parameters = std::wstring(L" /IM \"") + name + L"\" /F";
        LaunchProcess(killProgram, parameters, kProgramWaitMs, nullptr);
    }
}
}  // namespace repair
