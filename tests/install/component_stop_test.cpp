#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "install/component_stop.h"
#include "support/fake_machine.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::SizeIs;

IMPORTED(GetSystemDirectoryW)
IMPORTED(RegOpenKeyExW)
IMPORTED(RegCloseKey)

namespace repair
{
namespace
{
constexpr wchar_t kApplicationKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\";

// The same five every time, each waited for.
const std::vector<std::wstring> kKills = {
    L"run C:\\windows\\system32\\taskkill.exe |  /IM \"hlcmd.exe\" /F | -",          L"wait 30000",
    L"run C:\\windows\\system32\\taskkill.exe |  /IM \"CorvelSettings.exe\" /F | -", L"wait 30000",
    L"run C:\\windows\\system32\\taskkill.exe |  /IM \"Corvelsoftware.exe\" /F | -", L"wait 30000",
    L"run C:\\windows\\system32\\taskkill.exe |  /IM \"tavikow.exe\" /F | -",        L"wait 30000",
    L"run C:\\windows\\system32\\taskkill.exe |  /IM \"TavikLPServ.exe\" /F | -",    L"wait 30000",
};

std::vector<std::wstring> AfterAsking(const std::wstring& commandTool)
{
    std::vector<std::wstring> steps = {L"run " + commandTool + L" | exit | -", L"wait 30000"};
    steps.insert(steps.end(), kKills.begin(), kKills.end());
    return steps;
}

// Proves: The application is installed => it is asked to exit, then five names are killed in a fixed order, even when the asking succeeded; 30 seconds for each step
TEST(StopRunningComponents, AsksTheApplicationToExitAndThenKillsAllFiveByName)
{
    MachineRegistry registry;
    registry.SetString(kApplicationKey, L"Location", L"C:\\Program Files\\Tavik\\HL");
    FakeMachine machine;
    LogCapture log;
    StopRunningComponents();
    EXPECT_THAT(machine.steps, ElementsAreArray(AfterAsking(L"C:\\Program Files\\Tavik\\HL\\hlcmd.exe")));
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"Process C:\\Program Files\\Tavik\\HL\\hlcmd.exe exit completed with exit code 0",
                            L"Process C:\\windows\\system32\\taskkill.exe  /IM \"hlcmd.exe\" /F completed with exit "
                            L"code 0",
                            L"Process C:\\windows\\system32\\taskkill.exe  /IM \"CorvelSettings.exe\" /F completed "
                            L"with exit code 0",
                            L"Process C:\\windows\\system32\\taskkill.exe  /IM \"Corvelsoftware.exe\" /F completed "
                            L"with exit code 0",
                            L"Process C:\\windows\\system32\\taskkill.exe  /IM \"tavikow.exe\" /F completed with exit "
                            L"code 0",
                            L"Process C:\\windows\\system32\\taskkill.exe  /IM \"TavikLPServ.exe\" /F completed with "
                            L"exit code 0"));
}

// Proves: The location ends in a backslash => two backslashes; it is taken as it is
TEST(StopRunningComponents, LocationThatEndsInABackslashGetsASecondOne)
{
    MachineRegistry registry;
    registry.SetString(kApplicationKey, L"Location", L"C:\\HL\\");
    FakeMachine machine;
    StopRunningComponents();
    EXPECT_THAT(machine.steps, ElementsAreArray(AfterAsking(L"C:\\HL\\\\hlcmd.exe")));
}

// Proves: The key or the location is missing => nobody is asked, nothing is logged about it, the five kills run
TEST(StopRunningComponents, WithoutTheApplicationsKeyNobodyIsAskedAndNothingLogged)
{
    MachineRegistry registry;
    FakeMachine machine;
    LogCapture log;
    StopRunningComponents();
    EXPECT_THAT(machine.steps, ElementsAreArray(kKills));
    EXPECT_THAT(log.Lines(), SizeIs(5));
}

TEST(StopRunningComponents, WithoutALocationNobodyIsAskedAndNothingLogged)
{
    MachineRegistry registry;
    registry.CreateKey(kApplicationKey);
    FakeMachine machine;
    LogCapture log;
    StopRunningComponents();
    EXPECT_THAT(machine.steps, ElementsAreArray(kKills));
    EXPECT_THAT(log.Lines(), SizeIs(5));
}

// Proves: The command tool is missing => the failed start is logged, the kills run
// Proves: A name is not running => taskkill's code is logged and ignored
TEST(StopRunningComponents, KillsWhenTheCommandToolIsMissingAndWhenEveryKillFails)
{
    MachineRegistry registry;
    registry.SetString(kApplicationKey, L"Location", L"C:\\HL");
    FakeMachine machine;
    machine.startErrors[L"C:\\HL\\hlcmd.exe"] = 2;
    machine.exitCodes[L"C:\\windows\\system32\\taskkill.exe"] = 128;
    LogCapture log;
    StopRunningComponents();
    EXPECT_THAT(machine.StepsOf(L"run"), SizeIs(6));
    ASSERT_THAT(log.Lines(), SizeIs(6));
    EXPECT_THAT(log.Lines()[0],
                testing::StartsWith(L"Launching process C:\\HL\\hlcmd.exe exit failed. Error code = 2"));
    EXPECT_EQ(log.Lines()[5],
              L"Process C:\\windows\\system32\\taskkill.exe  /IM \"TavikLPServ.exe\" /F completed with exit code 128");
}

// Proves: The key is read (stopping the application) => for reading, and closed before the command tool runs
TEST(StopRunningComponents, ReadsTheKeyInTheProcesssOwnViewAndClosesItBeforeTheToolRuns)
{
    MachineRegistry registry;
    registry.SetString(kApplicationKey, L"Location", L"C:\\HL");
    FakeMachine machine;
    std::vector<std::wstring> calls;
    HKEY opened = nullptr;
    SUBSTITUTE(RegOpenKeyExW)
    open([&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(path, L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\");
        EXPECT_EQ(options, 0u);
        EXPECT_EQ(access, 0x20019u);
        const LSTATUS status = open.Original()(root, path, options, access, key);
        opened = *key;
        return status;
    });
    SUBSTITUTE(RegCloseKey)
    close([&](HKEY key) {
        if (key == opened)
        {
            machine.steps.push_back(L"close key");
        }
        return close.Original()(key);
    });
    StopRunningComponents();
    ASSERT_GE(machine.steps.size(), 2u);
    EXPECT_EQ(machine.steps[0], L"close key");
    EXPECT_EQ(machine.steps[1], L"run C:\\HL\\hlcmd.exe | exit | -");
}

// Proves: taskkill is looked for => in the system's folder; its parameters begin with a blank and quote the name
TEST(StopRunningComponents, TaskkillIsTheOneOfTheSystemDirectory)
{
    MachineRegistry registry;
    FakeMachine machine;
    SUBSTITUTE(GetSystemDirectoryW)
    systemDirectory([](wchar_t* buffer, UINT characters) {
        EXPECT_EQ(characters, 260u);
        EXPECT_EQ(std::wstring(buffer, 260), std::wstring(260, L'\0'));
        wcscpy(buffer, L"D:\\");  // joined as a path: no second backslash
        return UINT{3};
    });
    StopRunningComponents();
    EXPECT_EQ(machine.StepsOf(L"run").front(), L"run D:\\taskkill.exe |  /IM \"hlcmd.exe\" /F | -");
}
}  // namespace
}  // namespace repair
