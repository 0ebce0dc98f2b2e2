// The tests of the log's opening need a process that has not written a line before.
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/files.h"
#include "base/log.h"
#include "support/error_matcher.h"
#include "support/log_capture.h"
#include "support/substitute.h"

IMPORTED(CreateDirectoryW)
IMPORTED(CreateFileW)
IMPORTED(GetFileAttributesW)
IMPORTED(GetLocalTime)
IMPORTED(GetWindowsDirectoryW)
IMPORTED(WriteFile)

using testing::ElementsAre;

namespace repair
{
namespace
{
constexpr wchar_t kFolder[] = L"C:\\Program Files\\Tavik\\MIM\\Log\\";

// 6 November 2026 at 04:07:31.015, or with other milliseconds for tests that really open the file.
SYSTEMTIME At(WORD milliseconds)
{
    return {2026, 11, 5, 6, 4, 7, 31, milliseconds};
}

std::string ReadShared(const std::wstring& path)
{
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    std::string bytes(16384, '\0');
    DWORD count = 0;
    ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
    CloseHandle(file);
    return bytes.substr(0, count);
}

struct WindowsFolder
{
    const wchar_t* path;
    const wchar_t* logFolder;
};

class LogFolder : public testing::TestWithParam<WindowsFolder>
{
};

// Proves: Windows lies on any drive => the log folder is `Program Files\Tavik\MIM\Log\` on that drive
// Proves: The Windows folder cannot be asked, or has no backslash => its text as far as it is known is put in front
TEST_P(LogFolder, StandsOnTheDriveOfTheWindowsFolder)
{
    SUBSTITUTE(GetWindowsDirectoryW)
    windows([](wchar_t* buffer, UINT characters) {
        EXPECT_EQ(characters, 260u);
        const std::wstring path = GetParam().path;
        path.copy(buffer, path.size());
        return static_cast<UINT>(path.size());  // 0, the call's failure, leaves the buffer as it is
    });
    EXPECT_EQ(GetLogFolder(), GetParam().logFolder);
}

INSTANTIATE_TEST_SUITE_P(All, LogFolder,
                         testing::Values(WindowsFolder{L"C:\\windows", L"C:\\Program Files\\Tavik\\MIM\\Log\\"},
                                         WindowsFolder{L"D:\\a\\b", L"D:\\Program Files\\Tavik\\MIM\\Log\\"},
                                         WindowsFolder{L"E:\\", L"E:\\Program Files\\Tavik\\MIM\\Log\\"},
                                         WindowsFolder{L"X:windows",
                                                       L"X:windowsProgram Files\\Tavik\\MIM\\Log\\"},  // no backslash
                                         WindowsFolder{L"", L"Program Files\\Tavik\\MIM\\Log\\"}));

// Own process: a process begins its log once.
TEST(Log, FolderOfThisMachine)
{
    EXPECT_EQ(GetLogFolder(), kFolder);
}

// Proves: First line of a run => the folder with all parents is created, then the time is taken, then the file is created: open for reading by others, not for writing
// Proves: The file gets its name => local time to the millisecond, numbers without leading zeros
TEST(Log, FirstLineCreatesTheFolderThenTakesTheTimeThenCreatesTheFile)
{
    std::vector<std::wstring> calls;
    SUBSTITUTE(GetFileAttributesW) attributes([](const wchar_t*) { return INVALID_FILE_ATTRIBUTES; });
    SUBSTITUTE(CreateDirectoryW)
    createFolder([&](const wchar_t* path, SECURITY_ATTRIBUTES*) {
        calls.push_back(path);
        return TRUE;
    });
    SUBSTITUTE(GetLocalTime)
    time([&](SYSTEMTIME* now) {
        calls.push_back(L"time");
        *now = At(15);
    });
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
               DWORD flags, HANDLE pattern) {
        calls.push_back(path);
        EXPECT_EQ(access, 0xC0000000u);
        EXPECT_EQ(share, 1u);
        EXPECT_EQ(security, nullptr);
        EXPECT_EQ(disposition, 2u);
        EXPECT_EQ(flags, 128u);
        EXPECT_EQ(pattern, nullptr);
        return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    });
    WriteLog(L"line");
    EXPECT_THAT(
        calls, ElementsAre(L"C:\\", L"C:\\Program Files", L"C:\\Program Files\\Tavik", L"C:\\Program Files\\Tavik\\MIM",
                           L"C:\\Program Files\\Tavik\\MIM\\Log", L"time",
                           L"C:\\Program Files\\Tavik\\MIM\\Log\\InstallVLTForWUDriver_2026-11-6_4_7_31_15.log"));
}

struct NamedTime
{
    SYSTEMTIME time;  // year, month, day of the week, day, hour, minute, second, milliseconds
    const wchar_t* name;
};

class LogName : public testing::TestWithParam<NamedTime>
{
};

// Own process: a process begins its log once.
TEST_P(LogName, IsTheLocalTimeInPlainNumbers)
{
    std::wstring created;
    SUBSTITUTE(GetLocalTime) time([](SYSTEMTIME* now) { *now = GetParam().time; });
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, auto...) {
        created = path;
        return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    });
    WriteLog(L"line");
    EXPECT_EQ(created, std::wstring(kFolder) + GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
    All, LogName,
    testing::Values(NamedTime{{2026, 11, 5, 6, 4, 7, 31, 15}, L"InstallVLTForWUDriver_2026-11-6_4_7_31_15.log"},
                    NamedTime{{2031, 2, 6, 28, 23, 59, 8, 999}, L"InstallVLTForWUDriver_2031-2-28_23_59_8_999.log"},
                    NamedTime{{2027, 1, 5, 1, 0, 0, 0, 0}, L"InstallVLTForWUDriver_2027-1-1_0_0_0_0.log"}));

// Proves: The file cannot be created => lines are lost silently, it is not tried again
TEST(Log, FileThatCannotBeCreatedIsPassedOverAndNotTriedAgain)
{
    int creations = 0;
    int writes = 0;
    SUBSTITUTE(CreateFileW)
    create([&](auto...) {
        ++creations;
        return FailWith(ERROR_SHARING_VIOLATION, INVALID_HANDLE_VALUE);
    });
    SUBSTITUTE(WriteFile)
    write([&](HANDLE file, auto...) {
        ++writes;
        EXPECT_EQ(file, INVALID_HANDLE_VALUE);
        return FailWith(ERROR_INVALID_HANDLE);
    });
    WriteLog(L"first");
    WriteLog(L"second");
    EXPECT_EQ(creations, 1);
    EXPECT_EQ(writes, 4);
}

// Proves: The folder cannot be created (log file) => the error "create_directories" reaches the caller; the next line tries again
TEST(Log, FolderThatCannotBeCreatedRaisesTheErrorAndTheNextLineTriesAgain)
{
    {
        SUBSTITUTE(GetFileAttributesW) attributes([](const wchar_t*) { return INVALID_FILE_ATTRIBUTES; });
        SUBSTITUTE(CreateDirectoryW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED); });
        ExpectFileError(FileErrorOf([] { WriteLog(L"lost"); }), "create_directories", kFolder, 5);
        ExpectFileError(FileErrorOf([] { LogLine(L"%s", L"lost"); }), "create_directories", kFolder, 5);
    }
    SUBSTITUTE(GetLocalTime) time([](SYSTEMTIME* now) { *now = At(101); });
    WriteLog(L"a");
    EXPECT_EQ(ReadShared(std::wstring(kFolder) + L"InstallVLTForWUDriver_2026-11-6_4_7_31_101.log"),
              std::string("a\0\n\0", 4));
}

// Proves: Lines are written => UTF-16 little-endian without a mark, each line ends in one line feed, with nothing in front of it
TEST(Log, LineIsItsCharactersAndALineFeedInUtf16WithoutAMark)
{
    SUBSTITUTE(GetLocalTime) time([](SYSTEMTIME* now) { *now = At(102); });
    WriteLog(L"\tA\u20ac\U0001f600");
    WriteLog(L"");
    WriteLog(std::wstring(L"x\0y", 3));
    const std::wstring path = std::wstring(kFolder) + L"InstallVLTForWUDriver_2026-11-6_4_7_31_102.log";
    EXPECT_EQ(ReadShared(path), std::string("\t\0A\0\xac\x20\x3d\xd8\x00\xde\n\0\n\0x\0\0\0y\0\n\0", 22));
}

// Proves: A line cannot be written (disk full) => it goes unnoticed, the run goes on
TEST(Log, EachLineIsTwoWritesWhoseResultsDoNotMatter)
{
    SUBSTITUTE(GetLocalTime) time([](SYSTEMTIME* now) { *now = At(103); });
    std::vector<std::wstring> written;
    SUBSTITUTE(WriteFile)
    write([&](HANDLE, const void* data, DWORD bytes, DWORD*, OVERLAPPED* overlapped) {
        EXPECT_EQ(overlapped, nullptr);
        written.emplace_back(static_cast<const wchar_t*>(data), bytes / 2);
        return FailWith(ERROR_DISK_FULL);
    });
    WriteLog(L"one");
    LogLine(L"%d %hs", 2, "two");
    EXPECT_THAT(written, ElementsAre(L"one", L"\n", L"2 two", L"\n"));
}

// Proves: Two lines, two runs => one file a run
TEST(Log, LinesOfOneRunStandInOneFile)
{
    LogCapture log;
    WriteLog(L"first");
    LogLine(L"%s", L"second");
    LogLine(L"%s", std::wstring(2000, L'z').c_str());
    EXPECT_THAT(log.Lines(), ElementsAre(L"first", L"second", std::wstring(1023, L'z')));
}

TEST(Log, OthersMayReadWhileItIsOpenButNotWriteOrDelete)
{
    LogCapture log;
    EXPECT_NE(ReadShared(log.Path()).size(), 0u);
    const HANDLE writer = CreateFileW(log.Path().c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(writer, INVALID_HANDLE_VALUE);
    EXPECT_EQ(DeleteFileW(log.Path().c_str()), FALSE);
}

// Proves: Two runs in the same millisecond => the second overwrites the first one's file
TEST(Log, RunInTheSameMillisecondOverwritesTheFile)
{
    const std::wstring path = std::wstring(kFolder) + L"InstallVLTForWUDriver_2026-11-6_4_7_31_104.log";
    CreateDirectories(kFolder);
    const HANDLE earlier = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(earlier, "earlier run", 11, &written, nullptr);
    CloseHandle(earlier);
    SUBSTITUTE(GetLocalTime) time([](SYSTEMTIME* now) { *now = At(104); });
    WriteLog(L"b");
    EXPECT_EQ(ReadShared(path), std::string("b\0\n\0", 4));
}

// Proves: Several threads write their first line at once => the file is opened once
TEST(Log, OpenedOnceAlsoByThreadsThatStartTogether)
{
    std::atomic<int> creations = 0;
    std::atomic<int> writes = 0;
    std::atomic<bool> go = false;
    SUBSTITUTE(CreateFileW)
    create([&](auto...) {
        ++creations;
        Sleep(20);  // so that the others arrive meanwhile
        return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    });
    SUBSTITUTE(WriteFile)
    write([&](auto...) {
        ++writes;
        return TRUE;
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back([&] {
            while (!go)
            {
                std::this_thread::yield();
            }
            WriteLog(L"line");
        });
    }
    go = true;
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    EXPECT_EQ(creations, 1);
    EXPECT_EQ(writes, 16);
}
}  // namespace
}  // namespace repair
