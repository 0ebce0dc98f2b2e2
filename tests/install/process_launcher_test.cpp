#include "install/process_launcher.h"

#include <windows.h>
#include <shellapi.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/log_capture.h"
#include "support/substitute.h"
#include "support/with_param.h"

using testing::ElementsAre;
using testing::StartsWith;

IMPORTED(CloseHandle, GetExitCodeProcess, ShellExecuteExW, TerminateProcess, WaitForSingleObject)

namespace repair
{
namespace
{
// The system's text with line breaks as blanks, in the default language.
std::wstring SystemText(DWORD code)
{
    wchar_t text[512] = {};
    FormatMessageW(0x12FF, nullptr, code, 0, text, 512, nullptr);
    return text;
}

// A start that keeps what the shell is asked for and gives the product a handle of the test's own.
class LaunchFakeProcess : public testing::Test
{
protected:
    // Launches "a.exe" for a millisecond, without a working directory.
    static int Launch(const wchar_t* parameters = L"/x") { return LaunchProcess(L"a.exe", parameters, 1, nullptr); }

    HANDLE process_ = nullptr;
    DWORD startError_ = ERROR_SUCCESS;
    DWORD exitCode_ = 0;
    DWORD exitCodeError_ = ERROR_SUCCESS;
    DWORD waitResult_ = WAIT_OBJECT_0;
    SHELLEXECUTEINFOW seen_ = {};
    std::vector<std::wstring> texts_;  // verb, file, parameters, working directory
    std::vector<DWORD> waits_;
    int closed_ = 0;  // to be checked before the log: reading that reuses the handle's number
    int killed_ = 0;
    LogCapture log_;

private:
    SUBSTITUTE(ShellExecuteExW)
    shell_{[this](SHELLEXECUTEINFOW* start) {
        seen_ = *start;
        texts_ = {start->lpVerb, start->lpFile, start->lpParameters,
                  start->lpDirectory != nullptr ? start->lpDirectory : L"none"};
        if (startError_ != ERROR_SUCCESS)
        {
            return FailWith(startError_);
        }
        process_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);  // is waited for and closed like a process
        start->hProcess = process_;
        return TRUE;
    }};
    SUBSTITUTE(WaitForSingleObject)
    wait_{[this](HANDLE handle, DWORD milliseconds) {
        EXPECT_EQ(handle, process_);
        waits_.push_back(milliseconds);
        return waitResult_;
    }};
    SUBSTITUTE(GetExitCodeProcess)
    code_{[this](HANDLE handle, DWORD* code) {
        EXPECT_EQ(handle, process_);
        *code = exitCode_;
        return exitCodeError_ != ERROR_SUCCESS ? FailWith(exitCodeError_) : TRUE;
    }};
    SUBSTITUTE(CloseHandle)
    close_{[this](HANDLE handle) {
        closed_ += handle == process_ ? 1 : 0;
        return close_.Original()(handle);
    }};
    SUBSTITUTE(TerminateProcess) terminate_{[this](HANDLE, UINT) { return ++killed_, TRUE; }};
};

// Proves: A program is started => through the shell with "open", hidden, without dialogs of the shell; path and parameters as they are
TEST_F(LaunchFakeProcess, AsksTheShellToOpenTheFileHiddenAndSilently)
{
    LaunchProcess(L"C:\\My Folder\\a.exe", L"/D=C:\\x y \"z\"", 30'000, L"C:\\work");
    EXPECT_THAT(texts_, ElementsAre(L"open", L"C:\\My Folder\\a.exe", L"/D=C:\\x y \"z\"", L"C:\\work"));
    EXPECT_EQ(std::tuple(seen_.cbSize, seen_.fMask, seen_.hwnd, seen_.nShow, seen_.hInstApp, seen_.lpIDList),
              std::tuple(112u, 0x00800540u, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(std::tuple(seen_.lpClass, seen_.hkeyClass, seen_.dwHotKey, seen_.hIcon, seen_.hProcess),
              std::tuple(nullptr, nullptr, 0u, nullptr, nullptr));
}

// Proves: No working directory is given => the shell chooses one
TEST_F(LaunchFakeProcess, LetsTheShellChooseTheWorkingDirectory)
{
    Launch();
    EXPECT_EQ(texts_.back(), L"none");
}

// Proves: It runs => it is waited for once, for the given time; a failure of the wait is ignored
TEST_F(LaunchFakeProcess, WaitsOnceForTheGivenTimeEvenIfTheWaitFails)
{
    waitResult_ = WAIT_FAILED;
    exitCode_ = 7;
    for (const DWORD milliseconds : {0ul, 1ul, 30'000ul, 0xFFFFFFFFul})
    {
        waits_.clear();
        EXPECT_EQ(LaunchProcess(L"a.exe", L"/x", milliseconds, nullptr), 7);
        EXPECT_THAT(waits_, ElementsAre(milliseconds));
    }
}

struct Ended
{
    const wchar_t* parameters;
    DWORD exitCode;
    int returned;
    const wchar_t* line;
};

using LaunchProcessExitCode = WithParam<LaunchFakeProcess, Ended>;

// Proves: It ends => its exit code is logged and returned, the handle is closed
// Proves: Exit code 2, and a missing file => both give 2, only the log tells them apart
// Proves: Empty parameters => two blanks in the line
// Proves: Exit codes above 0x7FFFFFFF => negative numbers
// Proves: It outlives the wait => it is not killed, the handle is closed; the code is 259
TEST_P(LaunchProcessExitCode, IsLoggedAndReturnedAndTheHandleClosed)
{
    exitCode_ = GetParam().exitCode;
    waitResult_ = exitCode_ == STILL_ACTIVE ? WAIT_TIMEOUT : WAIT_OBJECT_0;
    EXPECT_EQ(Launch(GetParam().parameters), GetParam().returned);
    EXPECT_EQ(std::tuple(closed_, killed_), std::tuple(1, 0));
    EXPECT_THAT(log_.Lines(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(All, LaunchProcessExitCode,
                         testing::Values(Ended{L"/x", 2, 2, L"Process a.exe /x completed with exit code 2"},
                                         Ended{L"", 0, 0, L"Process a.exe  completed with exit code 0"},
                                         Ended{L"/x", 0xC0000005, -1073741819,
                                               L"Process a.exe /x completed with exit code -1073741819"},
                                         Ended{L"/x", 259, 259, L"Process a.exe /x completed with exit code 259"}));

using LaunchProcessStartFailure = WithParam<LaunchFakeProcess, DWORD>;
INSTANTIATE_TEST_SUITE_P(Codes, LaunchProcessStartFailure, testing::Values(2, 5, 1155, 1223, 99'999));

// Proves: It cannot be started => logged with code and text, the code comes back, nothing is waited for
TEST_P(LaunchProcessStartFailure, IsLoggedWithTheSystemsTextAndItsErrorReturned)
{
    startError_ = GetParam();
    exitCodeError_ = ERROR_INVALID_FUNCTION;  // would be logged
    for (const wchar_t* parameters : {L"/x", L""})
    {
        const LogCapture log;
        EXPECT_EQ(Launch(parameters), static_cast<int>(GetParam()));
        EXPECT_THAT(log.Lines(),
                    ElementsAre(std::wstring(L"Launching process a.exe ") + parameters + L" failed. Error code = " +
                                std::to_wstring(GetParam()) + L" " + SystemText(GetParam())));
    }
    EXPECT_THAT(waits_, testing::IsEmpty());
}

// Proves: The exit code cannot be read, or no process handle came back => logged with code and text, the code comes back, the handle is closed
TEST_F(LaunchFakeProcess, LogsAndReturnsTheErrorOfAnExitCodeThatCannotBeRead)
{
    exitCodeError_ = 6;
    EXPECT_EQ(Launch(), 6);
    EXPECT_EQ(closed_, 1);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"Unable to get exit code for process a.exe /x. Error code = 6 " + SystemText(6)));
}

// Proves: A very long command line => is cut in the log only
TEST_F(LaunchFakeProcess, CutsALongLineInTheLogButNotOnTheCommandLine)
{
    const std::wstring parameters(2000, L'p');
    Launch(parameters.c_str());
    EXPECT_EQ(texts_[2], parameters);
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Process a.exe " + std::wstring(1023 - 14, L'p')));
}

TEST(LaunchProcess, LogsAStartWithoutAProcessHandleAsAnUnreadableExitCode)
{
    SUBSTITUTE(ShellExecuteExW) shell([](SHELLEXECUTEINFOW*) { return TRUE; });  // a document opened elsewhere
    const LogCapture log;
    EXPECT_EQ(LaunchProcess(L"a.txt", L"", 1, nullptr), 6);
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith(L"Unable to get exit code for process a.txt . Error code = 6 ")));
}

TEST(LaunchProcess, RunsARealProgramAndReportsAMissingOne)
{
    const LogCapture log;
    EXPECT_EQ(LaunchProcess(L"C:\\windows\\system32\\cmd.exe", L"/c exit 5", 30'000, nullptr), 5);
    EXPECT_EQ(LaunchProcess(L"C:\\windows\\no such program.exe", L"/x", 1, nullptr), 2);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Process C:\\windows\\system32\\cmd.exe /c exit 5 completed with exit code 5",
                                         StartsWith(L"Launching process C:\\windows\\no such program.exe /x failed. "
                                                    L"Error code = 2 ")));
}
}  // namespace
}  // namespace repair
