#include <windows.h>

#include <shellapi.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "install/process_launcher.h"
#include "support/log_capture.h"
#include "support/substitute.h"

using testing::ElementsAre;
using testing::StartsWith;

IMPORTED(ShellExecuteExW)
IMPORTED(WaitForSingleObject)
IMPORTED(GetExitCodeProcess)
IMPORTED(CloseHandle)
IMPORTED(TerminateProcess)

namespace repair
{
namespace
{
constexpr wchar_t kShell[] = L"C:\\windows\\system32\\cmd.exe";

// The system's text with line breaks as blanks, in the default language.
std::wstring SystemText(DWORD code)
{
    wchar_t text[512] = {};
    FormatMessageW(0x12FF, nullptr, code, 0, text, 512, nullptr);
    return text;
}

// A start that gives the shell's structure to the test and a handle of the test's own to the product.
class StartedProgram
{
public:
    SHELLEXECUTEINFOW seen = {};
    std::wstring verb;
    std::wstring file;
    std::wstring parameters;
    std::wstring folder;
    HANDLE process = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    DWORD exitCode = 0;
    DWORD waitResult = WAIT_OBJECT_0;
    std::vector<DWORD> waits;
    int closed = 0;  // to be looked at before the log is: reading that reuses the handle's number

private:
    SUBSTITUTE(ShellExecuteExW)
    shell_{[this](SHELLEXECUTEINFOW* start) {
        seen = *start;
        verb = start->lpVerb;
        file = start->lpFile;
        parameters = start->lpParameters;
        folder = start->lpDirectory != nullptr ? start->lpDirectory : L"";
        start->hProcess = process;
        return TRUE;
    }};
    SUBSTITUTE(WaitForSingleObject)
    wait_{[this](HANDLE handle, DWORD milliseconds) {
        EXPECT_EQ(handle, process);
        waits.push_back(milliseconds);
        return waitResult;
    }};
    SUBSTITUTE(GetExitCodeProcess)
    code_{[this](HANDLE handle, DWORD* code) {
        EXPECT_EQ(handle, process);
        *code = exitCode;
        return TRUE;
    }};
    SUBSTITUTE(CloseHandle)
    close_{[this](HANDLE handle) {
        closed += handle == process ? 1 : 0;
        return close_.Original()(handle);
    }};
};

// Proves: A program is started => through the shell with "open", hidden, without dialogs of the shell; path and parameters as they are
TEST(LaunchProcess, AsksTheShellToOpenTheFileHiddenAndSilently)
{
    StartedProgram program;
    LaunchProcess(L"C:\\My Folder\\a.exe", L"/D=C:\\x y \"z\"", 30'000, L"C:\\work");
    EXPECT_EQ(program.seen.cbSize, 112u);
    EXPECT_EQ(program.seen.fMask, 0x00800540u);
    EXPECT_EQ(program.seen.hwnd, nullptr);
    EXPECT_EQ(program.verb, L"open");
    EXPECT_EQ(program.file, L"C:\\My Folder\\a.exe");  // as it is, no quotes around it
    EXPECT_EQ(program.parameters, L"/D=C:\\x y \"z\"");
    EXPECT_EQ(program.folder, L"C:\\work");
    EXPECT_EQ(program.seen.nShow, 0);
    EXPECT_EQ(program.seen.hInstApp, nullptr);
    EXPECT_EQ(program.seen.lpIDList, nullptr);
    EXPECT_EQ(program.seen.lpClass, nullptr);
    EXPECT_EQ(program.seen.hkeyClass, nullptr);
    EXPECT_EQ(program.seen.dwHotKey, 0u);
    EXPECT_EQ(program.seen.hIcon, nullptr);
    EXPECT_EQ(program.seen.hProcess, nullptr);
}

// Proves: No working directory is given => the shell chooses one
TEST(LaunchProcess, WithoutAWorkingDirectoryTheShellChoosesOne)
{
    StartedProgram program;
    LaunchProcess(L"a.exe", L"", 1, nullptr);
    EXPECT_EQ(program.seen.lpDirectory, nullptr);
}

class LaunchProcessWait : public testing::TestWithParam<DWORD>
{
};
INSTANTIATE_TEST_SUITE_P(Times, LaunchProcessWait, testing::Values(0, 1, 30'000, 0xFFFFFFFF));

// Proves: It runs => it is waited for once, for the given time; that the waiting fails does not matter
TEST_P(LaunchProcessWait, WaitsOnceForTheGivenTime)
{
    StartedProgram program;
    LaunchProcess(L"a.exe", L"", GetParam(), nullptr);
    EXPECT_THAT(program.waits, ElementsAre(GetParam()));
}

// Proves: It ends => its exit code is logged and returned, the handle is closed
// Proves: Exit code 2, and a missing file => both give 2, only the log tells them apart
TEST(LaunchProcess, ReturnsAndLogsTheExitCodeAndClosesTheHandle)
{
    StartedProgram program;
    program.exitCode = 2;
    LogCapture log;
    EXPECT_EQ(LaunchProcess(L"a.exe", L"/x", 1, nullptr), 2);
    EXPECT_EQ(program.closed, 1);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Process a.exe /x completed with exit code 2"));
}

// Proves: Empty parameters => two blanks in the line
TEST(LaunchProcess, EmptyParametersLeaveTwoBlanksInTheLine)
{
    StartedProgram program;
    LogCapture log;
    LaunchProcess(L"a.exe", L"", 1, nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Process a.exe  completed with exit code 0"));
}

// Proves: Exit codes above 0x7FFFFFFF => negative numbers
TEST(LaunchProcess, ExitCodesAboveTheSignedRangeAreNegative)
{
    StartedProgram program;
    program.exitCode = 0xC0000005;
    LogCapture log;
    EXPECT_EQ(LaunchProcess(L"a.exe", L"/x", 1, nullptr), -1073741819);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Process a.exe /x completed with exit code -1073741819"));
}

// Proves: It outlives the wait => it is not killed, the handle is closed; the code is 259
TEST(LaunchProcess, ProgramThatOutlivesTheWaitGoesOnAndIsReportedAsStillActive)
{
    StartedProgram program;
    program.exitCode = 259;
    program.waitResult = WAIT_TIMEOUT;
    int killed = 0;
    SUBSTITUTE(TerminateProcess) terminate([&](HANDLE, UINT) { return ++killed, TRUE; });
    LogCapture log;
    EXPECT_EQ(LaunchProcess(L"a.exe", L"/x", 1, nullptr), 259);
    EXPECT_EQ(program.closed, 1);
    EXPECT_EQ(killed, 0);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Process a.exe /x completed with exit code 259"));
}

TEST(LaunchProcess, FailedWaitDoesNotMatter)
{
    StartedProgram program;
    program.exitCode = 7;
    program.waitResult = WAIT_FAILED;
    EXPECT_EQ(LaunchProcess(L"a.exe", L"/x", 1, nullptr), 7);
}

TEST(LaunchProcess, RunsARealProgram)
{
    LogCapture log;
    EXPECT_EQ(LaunchProcess(kShell, L"/c exit 5", 30'000, nullptr), 5);
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"Process C:\\windows\\system32\\cmd.exe /c exit 5 completed with exit code 5"));
}

class LaunchProcessStartFailure : public testing::TestWithParam<DWORD>
{
};
INSTANTIATE_TEST_SUITE_P(Codes, LaunchProcessStartFailure, testing::Values(2, 5, 1155, 1223, 99'999));

// Proves: It cannot be started => logged with code and text, the code comes back, nothing is waited for
TEST_P(LaunchProcessStartFailure, IsLoggedWithTheSystemsTextAndItsErrorReturned)
{
    const DWORD code = GetParam();
    SUBSTITUTE(ShellExecuteExW) shell([code](SHELLEXECUTEINFOW*) { return FailWith(code); });
    int others = 0;
    SUBSTITUTE(WaitForSingleObject) wait([&](HANDLE, DWORD) { return ++others, DWORD{0}; });
    SUBSTITUTE(GetExitCodeProcess) exitCode([&](HANDLE, DWORD*) { return ++others, TRUE; });
    LogCapture log;
    EXPECT_EQ(LaunchProcess(L"a.exe", L"/x", 1, nullptr), static_cast<int>(code));
    EXPECT_THAT(log.Lines(), ElementsAre(L"Launching process a.exe /x failed. Error code = " + std::to_wstring(code) +
                                         L" " + SystemText(code)));
    EXPECT_EQ(others, 0);
}

TEST(LaunchProcess, FailedStartWithoutParametersLeavesTwoBlanksInTheLine)
{
    SUBSTITUTE(ShellExecuteExW) shell([](SHELLEXECUTEINFOW*) { return FailWith(99'999); });
    LogCapture log;
    LaunchProcess(L"a.exe", L"", 1, nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Launching process a.exe  failed. Error code = 99999 "));
}

TEST(LaunchProcess, MissingFileIsReportedByTheRealShell)
{
    LogCapture log;
    EXPECT_EQ(LaunchProcess(L"C:\\windows\\no such program.exe", L"/x", 1, nullptr), 2);
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith(L"Launching process C:\\windows\\no such program.exe /x failed. "
                                                    L"Error code = 2 ")));
}

// Proves: The exit code cannot be read, or no process handle came back => logged with code and text, the code comes back, the handle is closed
TEST(LaunchProcess, ExitCodeThatCannotBeReadIsLoggedAndItsErrorReturnedAndTheHandleClosed)
{
    const HANDLE process = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    SUBSTITUTE(ShellExecuteExW) shell([process](SHELLEXECUTEINFOW* start) { return start->hProcess = process, TRUE; });
    SUBSTITUTE(GetExitCodeProcess) exitCode([](HANDLE, DWORD*) { return FailWith(6); });
    int closed = 0;
    SUBSTITUTE(CloseHandle)
    close([&](HANDLE handle) {
        closed += handle == process ? 1 : 0;
        return close.Original()(handle);
    });
    LogCapture log;
    EXPECT_EQ(LaunchProcess(L"a.exe", L"/x", 1, nullptr), 6);
    EXPECT_EQ(closed, 1);
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"Unable to get exit code for process a.exe /x. Error code = 6 " + SystemText(6)));
}

TEST(LaunchProcess, StartWithoutAProcessHandleEndsAsAnUnreadableExitCode)
{
    SUBSTITUTE(ShellExecuteExW) shell([](SHELLEXECUTEINFOW*) { return TRUE; });  // a document opened elsewhere
    LogCapture log;
    EXPECT_EQ(LaunchProcess(L"a.txt", L"", 1, nullptr), 6);
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith(L"Unable to get exit code for process a.txt . Error code = 6 ")));
}

// Proves: A very long command line => is cut in the log only
TEST(LaunchProcess, LongLineIsCutInTheLogButNotOnTheCommandLine)
{
    StartedProgram program;
    std::wstring seen;
    const std::wstring parameters(2000, L'p');
    SUBSTITUTE(ShellExecuteExW)
    shell([&](SHELLEXECUTEINFOW* start) {
        seen = start->lpParameters;
        start->hProcess = program.process;
        return TRUE;
    });
    LogCapture log;
    LaunchProcess(L"a.exe", parameters, 1, nullptr);
    EXPECT_EQ(seen, parameters);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Process a.exe " + std::wstring(1023 - 14, L'p')));
}
}  // namespace
}  // namespace repair
