// Which programs run.
#include "companion/tool_process.h"

#include "support/machine_registry.h"
#include "support/test.h"

#include "base/files.h"
#include "base/handles.h"
#include "companion/safe_place.h"
#include "install/constants.h"

IMPORTED(OpenProcessToken, ProcessIdToSessionId)

using namespace repair;

TEST(ToolProcess, AToolWhoseRightsCannotBeAskedForRuns)
{
    SUBSTITUTE(OpenProcessToken)
    open([](auto...) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_TRUE(IsToolRunning(OurPath()));
}

TEST(ToolProcess, AnApplicationThatNoUserSeesIsNotInUseAndIsEnded)
{
    const MachineRegistry registry;
    const std::wstring folder = GetProgramFolder() + L"\\ToolProcessTest";
    CreateDirectories(folder);
    MachineRegistry::SetString(kApplicationInstallKey, kLocationValue, folder);
    const std::wstring program = folder + L"\\CorvelSoftware.exe";
    ASSERT_NE(CopyFileW(OurPath().c_str(), program.c_str(), FALSE), 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    ASSERT_NE(CreateProcessW(program.c_str(), nullptr, nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr, nullptr,
                             &startup, &started),
              0);
    {
        const ProcessHandle process(started.hProcess);
        CloseHandle(started.hThread);
        EndHiddenApplication();
        EXPECT_TRUE(IsApplicationRunning());
        SUBSTITUTE(ProcessIdToSessionId)
        session([](DWORD, DWORD* number) {
            *number = 0;
            return TRUE;
        });
        EXPECT_FALSE(IsApplicationRunning());
        EndHiddenApplication();
        EXPECT_EQ(WaitForSingleObject(process.Get(), 5000), WAIT_OBJECT_0);
    }
    RemoveAll(folder);
}
