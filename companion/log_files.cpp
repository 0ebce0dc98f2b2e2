#include "companion/log_files.h"

#include <algorithm>
#include <utility>

#include "base/handles.h"
#include "base/log.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
constexpr DWORD kPieceBytes = 262'144;
constexpr size_t kBufferBytes = 65'536;

struct SearchKind
{
    using Handle = HANDLE;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle search) noexcept { FindClose(search); }
};
using SearchHandle = Owned<SearchKind>;

LocalTime ToLocalTime(const SYSTEMTIME& time)
{
    return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds};
}
// Returns the names of files, by the time in their names, then by name; none if the folder does not exist.
std::vector<std::wstring> ListFiles(const std::wstring& folder, const std::wstring& pattern)
{
    std::vector<std::wstring> files;
    WIN32_FIND_DATAW data = {};
    const SearchHandle search(FindFirstFileW(JoinPath(folder, pattern).c_str(), &data));
    DWORD error = ERROR_SUCCESS;
    if (!search)
    {
        error = GetLastError();
    }
    else
    {
        do
        {
            if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            {
                files.emplace_back(data.cFileName);
            }
        } while (FindNextFileW(search.Get(), &data) != 0);
        error = GetLastError();
    }
    if (error != ERROR_NO_MORE_FILES && error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
    {
        throw Failure(SystemFailure(ToUtf8(folder) + " cannot be listed", error));
    }
    std::ranges::sort(files, std::ranges::less(),
                      [](const std::wstring& name) { return std::pair(ParseLogName(ToUtf8(name)), name); });
    return files;
}

// In units of 100 ns.
std::int64_t Ticks(const LocalTime& time)
{
    const auto word = [](int number) { return static_cast<WORD>(number); };
    const SYSTEMTIME parts = {word(time.year),   word(time.month),      0,
                              word(time.day),    word(time.hour),       word(time.minute),
                              word(time.second), word(time.millisecond)};
    FILETIME ticks = {};
    SystemTimeToFileTime(&parts, &ticks);
    return static_cast<std::int64_t>(ticks.dwHighDateTime) << 32 | ticks.dwLowDateTime;
}
}  // namespace

std::vector<std::wstring> ListLogs(const std::wstring& folder)
{
    std::vector<std::wstring> logs = ListFiles(folder, L"*.log");
    std::erase_if(logs, [](const std::wstring& name) { return !ParseLogName(ToUtf8(name)); });
    return logs;
}

std::vector<std::wstring> ExpandWildcards(const std::wstring& path)
{
    const std::wstring pattern = FileNameOf(path);
    if (pattern.find_first_of(L"*?") == std::wstring::npos)
    {
        return {path};
    }
    const std::wstring folder = path.substr(0, path.size() - pattern.size());
    std::vector<std::wstring> files = ListFiles(folder.empty() ? L"." : folder, pattern);
    if (files.empty())
    {
        throw Failure(ToUtf8(path) + ": no file has such a name; check folder and spelling");
    }
    std::ranges::transform(files, files.begin(), [&folder](const std::wstring& name) { return folder + name; });
    return files;
}

bool IsFolder(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

NotALog MakeNotALog(const std::wstring& path)
{
    return NotALog(ToUtf8(path) +
                   " is no log of the tool: its logs are named InstallVLTForWUDriver_<date and time>.log and are in " +
                   ToUtf8(GetLogFolder()));
}

std::uint64_t ReadFileBytes(const std::wstring& path, const std::function<void(std::string_view)>& sink,
                            std::uint64_t most)
{
    const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file)
    {
        const DWORD error = GetLastError();
        throw UnreadableFile(SystemFailure(ToUtf8(path) + " cannot be opened", error));
    }
    std::string piece(kPieceBytes, '\0');
    std::uint64_t total = 0;
    while (total < most)
    {
        const auto wanted = static_cast<DWORD>(std::min<std::uint64_t>(kPieceBytes, most - total));
        DWORD got = 0;
        if (ReadFile(file.Get(), piece.data(), wanted, &got, nullptr) == 0)
        {
            const DWORD error = GetLastError();
            throw UnreadableFile(SystemFailure(ToUtf8(path) + " cannot be read", error));
        }
        if (got == 0)
        {
            break;
        }
        sink(std::string_view(piece.data(), got));
        total += got;
    }
    return total;
}

Damage ReadLines(const std::wstring& path, const std::function<void(const Line&)>& sink, std::uint64_t most)
{
    LineReader reader(sink);
    const auto feed = [&reader](std::string_view bytes) { reader.Feed(bytes); };
    ReadFileBytes(path, feed, most);
    return reader.Finish();
}

Damage WriteAsText(const std::wstring& path, const std::function<std::string(const Line&)>& edit,
                   const std::function<void(std::string_view)>& write, std::uint64_t most)
{
    std::string buffer;
    const auto add = [&](const Line& line) {
        buffer += edit(line);
        buffer += line.ends && line.hasLineEnd ? "\r\n" : "";
        if (buffer.size() >= kBufferBytes)
        {
            write(buffer);
            buffer.clear();
        }
    };
    const Damage damage = ReadLines(path, add, most);
    write(buffer);
    return damage;
}

LocalTime LastWritten(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    FILETIME local = {};
    SYSTEMTIME time = {};
    if (GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) != 0)
    {
        FileTimeToLocalFileTime(&data.ftLastWriteTime, &local);
        FileTimeToSystemTime(&local, &time);
    }
    return ToLocalTime(time);
}

std::optional<int> DurationOfRun(const std::wstring& path)
{
    constexpr std::int64_t kTicksPerSecond = 10'000'000;
    constexpr std::int64_t kLongest = std::int64_t{24} * 3600;
    constexpr std::int64_t kRounding = 2;  // archives round times down to even seconds
    const std::optional<LocalTime> began = ParseLogName(ToUtf8(FileNameOf(path)));
    const std::int64_t seconds = began ? (Ticks(LastWritten(path)) - Ticks(*began)) / kTicksPerSecond : kLongest + 1;
    return seconds < -kRounding || seconds > kLongest
               ? std::nullopt
               : std::optional(static_cast<int>(std::max<std::int64_t>(seconds, 0)));
}

LocalTime Now()
{
    SYSTEMTIME time = {};
    GetLocalTime(&time);
    return ToLocalTime(time);
}

std::wstring JoinPath(const std::wstring& folder, const std::wstring& name)
{
    const bool separated = folder.empty() || folder.ends_with(L'\\') || folder.ends_with(L'/');
    return folder + (separated ? L"" : L"\\") + name;
}

std::wstring FileNameOf(const std::wstring& path)
{
    return path.substr(path.find_last_of(L"\\/:") + 1);
}
}  // namespace repair
