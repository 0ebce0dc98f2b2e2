#include "install/component_stop.h"

#include "support/fake_machine.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/test.h"

IMPORTED(GetSystemDirectoryW)

namespace repair
{
namespace
{
constexpr wchar_t kTaskkill[] = L"C:\\windows\\system32\\taskkill.exe";

class StopComponents : public testing::Test
{
protected:
    // Stops the components. Expects these steps, then five kills in this order, each waited for; every kill is
    // logged.
    void ExpectStops(std::vector<std::wstring> steps = {}, std::vector<std::wstring> lines = {}, int killCode = 0)
    {
        for (const wchar_t* name :
             {L"hlcmd.exe", L"CorvelSettings.exe", L"Corvelsoftware.exe", L"tavikow.exe", L"TavikLPServ.exe"})
        {
            const std::wstring parameters = std::wstring(L" /IM \"") + name + L"\" /F";
            steps.push_back(std::wstring(L"run ") + kTaskkill + L" | " + parameters + L" | -");
            steps.push_back(L"wait 30000");
            lines.push_back(std::wstring(L"Process ") + kTaskkill + L" " + parameters + L" completed with exit code " +
                            std::to_wstring(killCode));
        }
        StopRunningComponents();
        EXPECT_THAT(machine_.steps, ElementsAreArray(steps));
        EXPECT_THAT(log_.Lines(), ElementsAreArray(lines));
    }

    MachineRegistry registry_;
    FakeMachine machine_;
    LogCapture log_;
};

// Proves: The application is installed => it is asked to exit, then five names are killed in a fixed order, even when the request succeeds; 30 seconds for each step
// Proves: The location ends in a backslash => the path gets two backslashes, because the value is used as it is
TEST_F(StopComponents, AsksTheApplicationToExitAndThenKillsAllFiveByName)
{
    registry_.SetString(kInstallHaldenKey, L"Location", L"C:\\Program Files\\HL\\");
    ExpectStops({L"run C:\\Program Files\\HL\\\\hlcmd.exe | exit | -", L"wait 30000"},
                {L"Process C:\\Program Files\\HL\\\\hlcmd.exe exit completed with exit code 0"});
}

// Proves: The key or the location is missing => no program is asked, nothing is logged about it, the five kills run
TEST_F(StopComponents, OnlyKillsWithoutTheApplicationsKeyOrLocation)
{
    ExpectStops();
    registry_.CreateKey(kInstallHaldenKey);
    machine_.steps.clear();
    StopRunningComponents();
    EXPECT_EQ(machine_.StepsOf(L"run").size(), 5u);
}

// Proves: A name is not running => taskkill's code is logged and ignored
TEST_F(StopComponents, LogsAndIgnoresTheCodeOfAKillThatFails)
{
    machine_.exitCodes[kTaskkill] = 128;
    ExpectStops({}, {}, 128);
}

// Proves: The command tool is missing => the failed start is logged, the kills run
TEST_F(StopComponents, KillsWhenTheCommandToolIsMissing)
{
    registry_.SetString(kInstallHaldenKey, L"Location", L"C:\\HL");
    machine_.startErrors[L"C:\\HL\\hlcmd.exe"] = 2;
    StopRunningComponents();
    EXPECT_EQ(machine_.StepsOf(L"run").size(), 6u);
    ASSERT_EQ(log_.Lines().size(), 6u);
    EXPECT_THAT(log_.Lines()[0], StartsWith(L"Launching process C:\\HL\\hlcmd.exe exit failed. Error code = 2"));
}

// Proves: taskkill is looked for => in the system's folder, whose result is not checked; its parameters begin with a blank and quote the name
TEST_F(StopComponents, RunsTheTaskkillOfTheSystemDirectory)
{
    std::wstring folder;
    SUBSTITUTE(GetSystemDirectoryW)
    systemDirectory([&](wchar_t* buffer, UINT characters) {
        EXPECT_EQ(characters, 260u);
        EXPECT_EQ(std::wstring(buffer, 260), std::wstring(260, L'\0'));
        folder.copy(buffer, folder.size());
        return static_cast<UINT>(folder.size());  // 0 is the call's failure
    });
    for (const wchar_t* name : {L"D:\\", L""})  // joined as a path: no second backslash
    {
        folder = name;
        machine_.steps.clear();
        StopRunningComponents();
        EXPECT_THAT(machine_.steps, Contains(L"run " + folder + L"taskkill.exe |  /IM \"hlcmd.exe\" /F | -"));
    }
}
}  // namespace
}  // namespace repair
