// `run` in this process: what is remembered while another run is at work, and the application that a recovery starts.
#include "companion/commands.h"

#include "support/machine_registry.h"
#include "support/test.h"

#include <aclapi.h>

#include <CLI/CLI.hpp>

#include "base/files.h"
#include "base/handles.h"
#include "companion/last_run.h"
#include "companion/safe_place.h"
#include "companion/tool_process.h"
#include "install/constants.h"

IMPORTED(ProcessIdToSessionId, RegOpenKeyExW, SetSecurityInfo)

using namespace repair;

namespace
{
constexpr char kNoTool[] = "C:\\none.exe";
constexpr DWORD kEndMilliseconds = 5000;

LastRun WithOutcome(const std::wstring& outcome)
{
    LastRun last;
    last.outcome = outcome;
    return last;
}
}  // namespace

class RunCommand : public testing::Test
{
protected:
    RunCommand() { CreateDirectories(folder_); }
    ~RunCommand() override
    {
        TerminateProcess(process_.Get(), 0);  // if the test has failed; its file could not be removed
        WaitForSingleObject(process_.Get(), kEndMilliseconds);
        RemoveAll(folder_);
    }

    static int Run(const std::string& tool)
    {
        CLI::App program;
        int result = 0;
        const std::vector<std::wstring> switches;
        AddRunCommand(program, result, switches);
        program.parse(std::vector<std::string>{tool, "--tool", "run"});  // in reverse, as CLI11 wants them
        return result;
    }

    static std::wstring Outcome() { return ReadLastRun().value_or(LastRun()).outcome; }

    const std::wstring folder_ = GetProgramFolder() + L"\\Repair";
    const MachineRegistry registry_;
    ProcessHandle process_;
};

TEST_F(RunCommand, ALossThatAnotherRunRemembersMeanwhileIsKept)
{
    SUBSTITUTE(SetSecurityInfo)
    protect([](auto...) {
        LastRun other = WithOutcome(L"recovery-pending");
        other.recoveryPending = true;
        other.lost = kDvrProduct;
        WriteLastRun(other);
        return DWORD{ERROR_SUCCESS};
    });
    EXPECT_EQ(Run(kNoTool), 1618);
    EXPECT_EQ(Outcome(), L"recovery-pending");
    EXPECT_EQ(ReadLastRun().value_or(LastRun()).lost, kDvrProduct);
}

TEST_F(RunCommand, WhileAnotherRunHasTheFolderNothingIsRemembered)
{
    WriteLastRun(WithOutcome(kRunning));
    const SafePlace other;
    EXPECT_EQ(Run(kNoTool), 1618);
    EXPECT_EQ(Outcome(), kRunning);
}

TEST_F(RunCommand, AKeyThatCannotBeReadIsNotWritten)
{
    WriteLastRun(WithOutcome(L"install-busy"));
    {
        SUBSTITUTE(RegOpenKeyExW) open([](auto...) { return ERROR_ACCESS_DENIED; });
        EXPECT_EQ(Run(kNoTool), 1603);
    }
    EXPECT_EQ(Outcome(), L"install-busy");
}

TEST_F(RunCommand, AnApplicationThatNoUserSeesIsNotInUseAndEndsWithTheRecovery)
{
    MachineRegistry::SetString(kApplicationInstallKey, kLocationValue, folder_);
    const std::wstring program = folder_ + L"\\CorvelSoftware.exe";
    ASSERT_NE(CopyFileW(OurPath().c_str(), program.c_str(), FALSE), 0);
    LastRun last = WithOutcome(L"recovery-pending");
    last.recoveryPending = true;
    last.lost = kMainProduct;
    last.keptInstaller = program;
    WriteLastRun(last);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    ASSERT_NE(CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr, nullptr,
                             &startup, &started),
              0);
    process_ = ProcessHandle(started.hProcess);
    CloseHandle(started.hThread);
    EndHiddenApplication();
    EXPECT_TRUE(IsApplicationRunning());
    SUBSTITUTE(ProcessIdToSessionId)
    session([](DWORD, DWORD* number) {
        *number = 0;
        return TRUE;
    });
    EXPECT_FALSE(IsApplicationRunning());
    Run("C:\\windows\\system32\\hostname.exe");
    EXPECT_EQ(WaitForSingleObject(process_.Get(), kEndMilliseconds), WAIT_OBJECT_0);
}
