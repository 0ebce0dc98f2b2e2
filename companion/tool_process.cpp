#include "companion/tool_process.h"

#include <algorithm>
#include <cwchar>
#include <functional>
#include <utility>

#include <windows.h>
#include <tlhelp32.h>

#include "base/handles.h"
#include "base/log.h"
#include "base/registry.h"
#include "companion/console.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/unicode.h"
#include "install/constants.h"

namespace repair
{
namespace
{
constexpr UINT kKilled = ERROR_TIMEOUT;  // exit code of a tool that this program ended
constexpr const wchar_t* kWindowPrograms[] = {L"CorvelSoftware.exe", L"CorvelSettings.exe"};
constexpr DWORD kLongestPath = 32'768;

bool FirstLineHas(const std::wstring& path, const std::string& mark)
{
    constexpr std::uint64_t kFirstLineBytes = 4096;  // the tool's lines have at most 2,048
    bool isFirst = true;
    bool found = false;
    const auto check = [&](const Line& line) {
        found = found || (isFirst && line.text.find(mark) != std::string_view::npos);
        isFirst = false;
    };
    try
    {
        ReadLines(path, check, kFirstLineBytes);
    }
    catch (const UnreadableFile&)  // another process is writing it, so it is not our log
    {
        return false;
    }
    return found;
}

struct Ended
{
    bool isOver = false;
    std::optional<int> exitCode;  // none while it still runs
};

bool IsOver(HANDLE process, int limitSeconds)
{
    return WaitForSingleObject(process, static_cast<DWORD>(limitSeconds) * 1000) == WAIT_OBJECT_0;
}

Ended Wait(HANDLE process, int limitSeconds, bool kill)
{
    Ended ended;
    ended.isOver = IsOver(process, limitSeconds);
    if (!ended.isOver && kill)
    {
        // The tool may have ended by itself just now; then TerminateProcess fails.
        ended.isOver = IsOver(process, 0) || TerminateProcess(process, kKilled) == 0;
        WaitForSingleObject(process, INFINITE);
    }
    if (ended.isOver || kill)
    {
        DWORD code = 0;
        GetExitCodeProcess(process, &code);
        ended.exitCode = static_cast<int>(code);
    }
    return ended;
}

// Returns the argument as it must be written in a command line, so that the program started with it gets it unchanged.
std::wstring QuoteArgument(std::wstring_view argument)
{
    if (!argument.empty() && argument.find_first_of(L" \t\"") == std::wstring_view::npos)
    {
        return std::wstring(argument);
    }
    std::wstring quoted = L"\"";
    size_t backslashes = 0;  // directly before this character; before a quotation mark each must be doubled
    for (const wchar_t c : argument)
    {
        if (c == L'"')
        {
            quoted.append(backslashes + 1, L'\\');
        }
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted.push_back(c);
    }
    quoted.append(backslashes, L'\\');
    return quoted + L"\"";
}

std::wstring CommandLine(const ToolStart& start)
{
    std::wstring line = L"\"" + start.tool + L"\" " + start.mark;
    for (const std::wstring& argument : start.switches)
    {
        line += L" " + QuoteArgument(argument);
    }
    return line;
}

// Returns the process; null after setting the last error.
ProcessHandle Start(const std::wstring& tool, std::wstring commandLine)
{
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    if (CreateProcessW(tool.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &started) == 0)
    {
        return ProcessHandle();
    }
    CloseHandle(started.hThread);
    return ProcessHandle(started.hProcess);
}

Finding Classify(const std::optional<std::wstring>& log, const Ended& ended)
{
    Recogniser recogniser(log ? ToUtf8(FileNameOf(*log)) : std::string(), ended.exitCode);
    if (log)
    {
        try
        {
            ReadFileBytes(*log, [&recogniser](std::string_view bytes) { recogniser.Feed(bytes); });
        }
        catch (const UnreadableFile& failure)  // classify by the part that was read
        {
            WriteError(failure.what());
        }
    }
    return recogniser.Finish();
}

bool EqualNoCase(std::wstring_view a, std::wstring_view b)
{
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

// True if a process fits, which is given with the path of its program.
bool AnyProcess(const std::function<bool(HANDLE process, const std::wstring& path)>& fits)
{
    const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    bool found = false;
    for (BOOL more = Process32FirstW(snapshot.Get(), &entry); more != FALSE && !found;
         more = Process32NextW(snapshot.Get(), &entry))
    {
        const ProcessHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ProcessID));
        std::wstring path(kLongestPath, L'\0');
        DWORD length = kLongestPath;
        if (process && QueryFullProcessImageNameW(process.Get(), 0, path.data(), &length) != 0)
        {
            path.resize(length);
            found = fits(process.Get(), path);
        }
    }
    return found;
}

bool HasAdministratorRights(HANDLE process)
{
    HANDLE handle = nullptr;
    if (OpenProcessToken(process, TOKEN_QUERY, &handle) == 0)
    {
        return GetLastError() == ERROR_ACCESS_DENIED;  // an administrator cannot ask about a process of the system
    }
    const ProcessHandle token(handle);
    TOKEN_ELEVATION elevation = {};
    DWORD size = 0;
    return GetTokenInformation(token.Get(), TokenElevation, &elevation, sizeof(elevation), &size) != 0 &&
           elevation.TokenIsElevated != 0;
}
}  // namespace

std::wstring MakeMark()
{
    LARGE_INTEGER counter = {};
    QueryPerformanceCounter(&counter);
    return L"-run=" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(counter.QuadPart);
}

ToolEnd RunTool(const ToolStart& start)
{
    ToolEnd end;
    const ProcessHandle process = Start(start.tool, CommandLine(start));
    if (!process)
    {
        end.startError = GetLastError();
        return end;
    }
    Ended ended = Wait(process.Get(), start.limitSeconds, start.kill);
    const std::optional<std::wstring> log = FindLog(start.mark);
    if (!ended.exitCode)
    {
        ended = Wait(process.Get(), 0, false);  // if it has ended by now, its log is complete
    }
    end.isOver = ended.isOver;
    end.finding = Classify(log, ended);
    return end;
}

std::optional<std::wstring> FindLog(const std::wstring& mark)
{
    const std::string wanted = " " + ToUtf8(mark);
    const std::wstring folder = GetLogFolder();
    try
    {
        const std::vector<std::wstring> logs = ListLogs(folder);
        const auto own = std::find_if(logs.rbegin(), logs.rend(), [&](const std::wstring& name) {  // the newest first
            return FirstLineHas(JoinPath(folder, name), wanted);
        });
        return own != logs.rend() ? std::optional(JoinPath(folder, *own)) : std::nullopt;
    }
    catch (const Failure& failure)  // the outcome of the tool counts
    {
        WriteError(failure.what());
        return std::nullopt;
    }
}

std::wstring OurPath()
{
    std::wstring path(kLongestPath, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), kLongestPath));
    return path;
}

std::wstring ToolBesideUs()
{
    const std::wstring path = OurPath();
    return path.substr(0, path.find_last_of(L'\\') + 1) + kTool;
}

bool IsToolRunning(const std::wstring& tool)
{
    return AnyProcess([&tool](HANDLE process, const std::wstring& path) {
        return (EqualNoCase(path, tool) || EqualNoCase(FileNameOf(path), kTool)) && HasAdministratorRights(process);
    });
}

namespace
{
// True if a window program of the application fits.
bool AnyWindowProgram(const std::function<bool(DWORD id, DWORD session)>& fits)
{
    std::wstring location;
    try
    {
        location = ReadMachineString(kApplicationInstallKey, kLocationValue) + L"\\";
    }
    catch (const RegKeyError&)  // not installed, so it cannot run
    {
        return false;
    }
    return AnyProcess([&](HANDLE process, const std::wstring& path) {
        const DWORD id = GetProcessId(process);
        DWORD session = MAXDWORD;
        ProcessIdToSessionId(id, &session);
        return std::ranges::any_of(kWindowPrograms,
                                   [&](const wchar_t* name) { return EqualNoCase(path, location + name); }) &&
               fits(id, session);
    });
}
}  // namespace

bool IsApplicationRunning()
{
    return AnyWindowProgram([](DWORD, DWORD session) { return session != 0; });
}

void EndHiddenApplication()
{
    AnyWindowProgram([](DWORD id, DWORD session) {
        const ProcessHandle process(session == 0 ? OpenProcess(PROCESS_TERMINATE, FALSE, id) : nullptr);
        if (process)
        {
            TerminateProcess(process.Get(), ERROR_SUCCESS);
        }
        return false;
    });
}
}  // namespace repair
