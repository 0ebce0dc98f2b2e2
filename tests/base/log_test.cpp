// The tests of the log's opening need a process that has not written a line before.

#include <algorithm>
#include <atomic>
#include <thread>

#include "base/files.h"
#include "base/log.h"
#include "support/error_matcher.h"
#include "support/log_capture.h"
#include "support/test.h"

IMPORTED(CreateDirectoryW, CreateFileW, GetFileAttributesW, GetLocalTime, GetWindowsDirectoryW, WriteFile)

namespace repair
{
namespace
{
constexpr wchar_t kLogFolder[] = L"C:\\Program Files\\Tavik\\MIM\\Log\\";

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

// The local time is always that of 6 November 2026, 04:07:31, and the log has a name of its own.
class FixedTime
{
public:
    explicit FixedTime(WORD milliseconds) : milliseconds_(milliseconds) {}

    std::wstring LogPath() const
    {
        return std::wstring(kLogFolder) + L"InstallVLTForWUDriver_2026-11-6_4_7_31_" + std::to_wstring(milliseconds_) +
               L".log";
    }

private:
    WORD milliseconds_;
    SUBSTITUTE(GetLocalTime)
    time_{[this](SYSTEMTIME* now) { *now = {2026, 11, 5, 6, 4, 7, 31, milliseconds_}; }};
};

// Proves: Windows lies on any drive => the log folder is `Program Files\Tavik\MIM\Log\` on that drive
// Proves: The Windows folder cannot be asked, or has no backslash => whatever is known of its text is put in front
TEST(LogFolder, IsOnTheDriveOfTheWindowsFolder)
{
    EXPECT_EQ(GetLogFolder(), kLogFolder);
    std::wstring path;
    SUBSTITUTE(GetWindowsDirectoryW)
    windows([&](wchar_t* buffer, UINT characters) {
        EXPECT_EQ(characters, 260u);
        path.copy(buffer, path.size());
        return static_cast<UINT>(path.size());  // 0, the call's failure, leaves the buffer as it is
    });
    for (const auto& [folder, root] :
         {std::pair(L"C:\\windows", L"C:\\"), std::pair(L"D:\\a\\b", L"D:\\"), std::pair(L"E:\\", L"E:\\"),
          std::pair(L"X:windows", L"X:windows"), std::pair(L"", L"")})
    {
        path = folder;
        EXPECT_EQ(GetLogFolder(), root + std::wstring(L"Program Files\\Tavik\\MIM\\Log\\"));
    }
}

// Own process: a process begins its log once.
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
        *now = {2026, 11, 5, 6, 4, 7, 31, 15};
    });
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
               DWORD flags, HANDLE pattern) {
        calls.push_back(path);
        EXPECT_EQ(std::tuple(access, share, security, disposition, flags, pattern),
                  std::tuple(0xC0000000u, 1u, nullptr, 2u, 128u, nullptr));
        return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    });
    LogLine(L"line");
    EXPECT_THAT(
        calls, ElementsAre(L"C:\\", L"C:\\Program Files", L"C:\\Program Files\\Tavik", L"C:\\Program Files\\Tavik\\MIM",
                           L"C:\\Program Files\\Tavik\\MIM\\Log", L"time",
                           L"C:\\Program Files\\Tavik\\MIM\\Log\\InstallVLTForWUDriver_2026-11-6_4_7_31_15.log"));
}

// Proves: The folder cannot be created (log file) => the error "create_directories" reaches the caller; the next line tries again
TEST(Log, FolderThatCannotBeCreatedRaisesTheErrorAndTheNextLineTriesAgain)
{
    {
        SUBSTITUTE(GetFileAttributesW) attributes([](const wchar_t*) { return INVALID_FILE_ATTRIBUTES; });
        SUBSTITUTE(CreateDirectoryW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED); });
        ExpectFileError(FileErrorOf([] { LogLine(L"%s", L"lost"); }), "create_directories", kLogFolder, 5);
        ExpectFileError(FileErrorOf([] { LogLine(L"%s", L"lost"); }), "create_directories", kLogFolder, 5);
    }
    const FixedTime time(101);
    LogLine(L"a");
    EXPECT_EQ(ReadShared(time.LogPath()), std::string("a\0\n\0", 4));
}

// Proves: Lines are written => UTF-16 little-endian without a mark, each line ends in one line feed, with nothing in front of it
TEST(Log, LineIsItsCharactersAndALineFeedInUtf16WithoutAMark)
{
    const FixedTime time(102);
    LogLine(L"\tA%s", L"\u20ac\U0001f600");
    LogLine(L"%s", L"");
    WriteLog(std::wstring(L"x\0y", 3));
    EXPECT_EQ(ReadShared(time.LogPath()), std::string("\t\0A\0\xac\x20\x3d\xd8\x00\xde\n\0\n\0x\0\0\0y\0\n\0", 22));
}

// Proves: A line cannot be written (disk full) => the line is lost, the run goes on
TEST(Log, EachLineIsTwoWritesWhoseResultsDoNotMatter)
{
    const FixedTime time(103);
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
TEST(Log, AllLinesOfARunAreInOneFileThatOthersMayReadButNotWriteOrDelete)
{
    LogCapture log;
    WriteLog(L"first");
    LogLine(L"%s", L"second");
    EXPECT_THAT(log.Lines(), ElementsAre(L"first", L"second"));
    const HANDLE writer = CreateFileW(log.Path().c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_EQ(writer, INVALID_HANDLE_VALUE);
    EXPECT_EQ(DeleteFileW(log.Path().c_str()), FALSE);
}

// Proves: Two runs in the same millisecond => the second overwrites the first one's file
TEST(Log, RunInTheSameMillisecondOverwritesTheFile)
{
    const FixedTime time(104);
    CreateDirectories(kLogFolder);
    const HANDLE earlier = CreateFileW(time.LogPath().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(earlier, "earlier run", 11, &written, nullptr);
    CloseHandle(earlier);
    LogLine(L"b");
    EXPECT_EQ(ReadShared(time.LogPath()), std::string("b\0\n\0", 4));
}

// Proves: Several threads write their first line at once => the file is opened once
// Proves: The file cannot be created => lines are lost silently, it is not tried again
TEST(Log, OpenedOnceAlsoByThreadsThatStartTogetherAndAfterAFailure)
{
    std::atomic<int> creations = 0;
    std::atomic<int> writes = 0;
    std::atomic<bool> go = false;
    SUBSTITUTE(CreateFileW)
    create([&](auto...) {
        ++creations;
        Sleep(20);  // gives the other threads time to arrive
        return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    });
    SUBSTITUTE(WriteFile)
    write([&](HANDLE file, auto...) {
        EXPECT_EQ(file, INVALID_HANDLE_VALUE);
        return ++writes, FailWith(ERROR_INVALID_HANDLE);
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back([&] {
            while (!go)
            {
                std::this_thread::yield();
            }
            LogLine(L"line");
        });
    }
    go = true;
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    EXPECT_EQ(creations, 1);
    EXPECT_EQ(writes, 16);
}

// Proves: A line is formatted => wide and narrow texts, signed numbers
TEST(LineFormat, IsThatOfTheWidePrintfFamily)
{
    LogCapture log;
    LogLine(L"no arguments");
    LogLine(L"[%s] [%ls] [%hs]", L"wide", L"also wide", "narrow");
    LogLine(L"%s %hs", L"\u20ac\U0001f600\u00e9", "\xc3\xa9");  // a byte, a character
    LogLine(L"%d %d", 0x80070005, 12029ul);                     // HRESULTs show as negative numbers
    // The flag " " (blank) leaves room for a sign before a number; it has no effect on a text.
    LogLine(L"property: % d % s", 5, L"Access denied. ");
    LogLine(L"property: % d % s", -5, L"text");
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"no arguments", L"[wide] [also wide] [narrow]", L"\u20ac\U0001f600\u00e9 \u00c3\u00a9",
                            L"-2147024891 12029", L"property:  5 Access denied. ", L"property: -5 text"));
}

// Proves: A line is longer than 1,023 characters, or has a NUL inside => it is cut there
TEST(LineFormat, IsCutAfter1023CharactersAndAtANul)
{
    LogCapture log;
    for (const size_t length : {1022u, 1023u, 1024u})
    {
        LogLine(L"%s", std::wstring(length, L'x').c_str());
    }
    LogLine(L"ab%s%d", std::wstring(5000, L'x').c_str(), 7);
    LogLine(L"%hs", std::string(2000, 'y').c_str());
    LogLine(L"a%cb", 0);
    const std::wstring longest(1023, L'x');
    EXPECT_THAT(log.Lines(), ElementsAre(longest.substr(1), longest, longest, L"ab" + longest.substr(2),
                                         std::wstring(1023, L'y'), L"a"));
}
}  // namespace
}  // namespace repair
