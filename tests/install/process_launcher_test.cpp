#include "install/process_launcher.h"

#include <windows.h>
#include <shellapi.h>

#include "base/system_message.h"
#include "support/log_capture.h"
#include "support/test.h"

IMPORTED(CloseHandle, GetExitCodeProcess, ShellExecuteExW, TerminateProcess, WaitForSingleObject)

namespace repair
{
namespace
{
// Records the arguments of ShellExecuteExW and returns a handle made by the test.
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
    int closed_ = 0;  // check it before reading the log, which reuses the handle's number
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
    SUBSTITUTE(TerminateProcess)
    terminate_{[this](HANDLE, UINT) { return ++killed_, TRUE; }};
};

// Proves: No working directory is given => the shell chooses one
// Proves: A program is started => through the shell with "open", hidden, without dialogs of the shell; path and parameters as they are
TEST_F(LaunchFakeProcess, AsksTheShellToOpenTheFileHiddenAndSilently)
{
    LaunchProcess(L"C:\\My Folder\\a.exe", L"/D=C:\\x y \"z\"", 30'000, L"C:\\work");
    EXPECT_THAT(texts_, ElementsAre(L"open", L"C:\\My Folder\\a.exe", L"/D=C:\\x y \"z\"", L"C:\\work"));
    EXPECT_EQ(std::tuple(seen_.cbSize, seen_.fMask, seen_.hwnd, seen_.nShow, seen_.hInstApp, seen_.lpIDList),
              std::tuple(112u, 0x00800540u, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(std::tuple(seen_.lpClass, seen_.hkeyClass, seen_.dwHotKey, seen_.hIcon, seen_.hProcess),
              std::tuple(nullptr, nullptr, 0u, nullptr, nullptr));
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

// Proves: It ends => its exit code is logged and returned, the handle is closed
// Proves: Exit code 2, and a missing file => both give 2, only the log tells them apart
// Proves: Empty parameters => two blanks in the line
// Proves: Exit codes above 0x7FFFFFFF => negative numbers
// Proves: It outlives the wait => it is not killed, the handle is closed; the code is 259
TEST_F(LaunchFakeProcess, LogsAndReturnsTheExitCodeAndClosesTheHandle)
{
    struct
    {
        const wchar_t* parameters;
        DWORD exitCode;
        int returned;
        const wchar_t* line;
    } const ends[] = {{L"/x", 2, 2, L"Process a.exe /x completed with exit code 2"},
                      {L"", 0, 0, L"Process a.exe  completed with exit code 0"},
                      {L"/x", 0xC0000005, -1073741819, L"Process a.exe /x completed with exit code -1073741819"},
                      {L"/x", STILL_ACTIVE, 259, L"Process a.exe /x completed with exit code 259"}};
    for (const auto& [parameters, exitCode, returned, line] : ends)
    {
        closed_ = 0;
        exitCode_ = exitCode;
        waitResult_ = exitCode == STILL_ACTIVE ? WAIT_TIMEOUT : WAIT_OBJECT_0;
        EXPECT_EQ(Launch(parameters), returned);
        EXPECT_EQ(std::tuple(closed_, killed_), std::tuple(1, 0));
        EXPECT_THAT(log_.Take(), ElementsAre(line));
    }
}

// Proves: It cannot be started => logged with code and text, the code comes back, nothing is waited for
TEST_F(LaunchFakeProcess, LogsAndReturnsTheErrorOfAStartWithTheSystemsText)
{
    exitCodeError_ = ERROR_INVALID_FUNCTION;  // must not be logged
    for (const DWORD code : {2u, 5u, 1155u, 1223u, 99'999u})
    {
        startError_ = code;
        for (const std::wstring parameters : {L"/x", L""})
        {
            EXPECT_EQ(Launch(parameters.c_str()), static_cast<int>(code));
            EXPECT_THAT(log_.Take(), ElementsAre(L"Launching process a.exe " + parameters + L" failed. Error code = " +
                                                 std::to_wstring(code) + L" " + FormatSystemMessage(code)));
        }
    }
    EXPECT_THAT(waits_, IsEmpty());
}

// Proves: The exit code cannot be read, or no process handle came back => logged with code and text, the code comes back, the handle is closed
TEST_F(LaunchFakeProcess, LogsAndReturnsTheErrorOfAnExitCodeThatCannotBeRead)
{
    exitCodeError_ = 6;
    EXPECT_EQ(Launch(), 6);
    EXPECT_EQ(closed_, 1);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"Unable to get exit code for process a.exe /x. Error code = 6 " + FormatSystemMessage(6)));
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
}  // namespace
}  // namespace repair
