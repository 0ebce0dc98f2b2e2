// run: starts the tool, waits for its end and says what came of it.
#include <map>
#include <optional>
#include <utility>

#include <windows.h>

#include "base/handles.h"
#include "base/log.h"
#include "companion/arguments.h"
#include "companion/catalogue.h"
#include "companion/command_line.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/explanation.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/wide_text.h"

namespace repair
{
namespace
{
constexpr wchar_t kTool[] = L"TavikCompatibilityTool.exe";
constexpr int kDefaultLimitSeconds = 3600;
constexpr int kLongestLimitSeconds = 7 * 24 * 3600;
constexpr UINT kKilled = ERROR_TIMEOUT;  // exit code of a tool that was ended here

// Outcomes of the start, not of the tool; the catalogue knows those.
constexpr Meaning kTimedOut = {
    .id = "timed-out",
    .title = "Time limit reached",
    .owner = "The tool was still at work when the time limit was reached. It goes on.",
    .cause =
        "A slow download, a slow installation, or a message box that waits for an answer: see the last line of the "
        "log.",
    .action = "Start again later. Use -SILENT where nobody can answer a box, and a longer --timeout on slow lines.",
    .retry = "later",
    .code = 1618,
};
constexpr Meaning kEndedHere = {
    .id = "timed-out-ended",
    .title = "Ended at the time limit",
    .owner = "The tool was still at work when the time limit was reached, and was ended.",
    .cause =
        "A slow download, a slow installation, or a message box that waits for an answer: see the last line of the "
        "log.",
    .action =
        "When the log ends behind \"Uninstalling\", the previous application may be gone: install with -VLT -Install. "
        "Otherwise start again.",
    .retry = "no",
    .code = 1603,
};
constexpr Meaning kNotStarted = {
    .id = "not-started",
    .title = "Tool not started",
    .owner = "Windows did not start the tool. Nothing was changed.",
    .cause =
        "The file is missing or blocked, or administrator rights are missing (error 740): the evidence has the error.",
    .action = "Put the tool beside this program or name it with --tool, and start as administrator or SYSTEM.",
    .retry = "no",
    .code = 1603,
};
constexpr int kUnknownCode = 1603;  // of a run that matches no outcome, or several

std::wstring ToolBesideUs()
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length < path.size())
        {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    return path.substr(0, path.find_last_of(L'\\') + 1) + kTool;
}

// An argument that the tool passes over and writes into the first line of its log, where we find it again.
std::wstring MakeMark()
{
    LARGE_INTEGER counter = {};
    QueryPerformanceCounter(&counter);
    return L"-run=" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(counter.QuadPart);
}

bool FirstLineHas(const std::wstring& path, const std::string& mark)
{
    constexpr std::uint64_t kFirstLineBytes = 4096;  // the tool's lines have 2,048 at the most
    bool isFirst = true;
    bool found = false;
    LineReader reader([&](const Line& line) {
        found = found || (isFirst && line.text.find(mark) != std::string_view::npos);
        isFirst = false;
    });
    try
    {
        ReadFileBytes(
            path, [&reader](std::string_view bytes) { reader.Feed(bytes); }, kFirstLineBytes);
    }
    catch (const UnreadableFile&)  // somebody else's, then
    {
        return false;
    }
    reader.Finish();
    return found;
}

// What goes wrong beside the tool is said, but does not take the place of its outcome.
void Complain(const Failure& failure)
{
    WriteError("TavikToolCompanion: " + std::string(failure.what()) + "\n");
}

std::map<std::wstring, std::uint64_t> LogTimes(const std::wstring& folder)
{
    std::map<std::wstring, std::uint64_t> times;
    try
    {
        for (const LogFile& log : ListLogs(folder))
        {
            times[log.name] = std::uint64_t{log.written.dwHighDateTime} << 32 | log.written.dwLowDateTime;
        }
    }
    catch (const Failure& failure)
    {
        Complain(failure);
    }
    return times;
}

// The log with our mark among those that are new or were written since. Other instances may have left logs as well.
std::optional<std::wstring> FindOwnLog(const std::wstring& folder, const std::map<std::wstring, std::uint64_t>& before,
                                       const std::wstring& mark)
{
    const std::string wanted = " " + ToUtf8(mark);
    for (const auto& [name, time] : LogTimes(folder))
    {
        const auto old = before.find(name);
        if ((old == before.end() || old->second != time) && FirstLineHas(JoinPath(folder, name), wanted))
        {
            return name;
        }
    }
    return std::nullopt;
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
        // It may have ended by itself just now; what has ended cannot be ended either.
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

int Report(const Finding& finding)
{
    try
    {
        WriteOutput(ExplainAsJson(finding) + "\n");
    }
    catch (const Failure& failure)  // there may be no output at all; the code is what counts
    {
        Complain(failure);
    }
    return finding.candidates.size() == 1 ? finding.candidates.front().meaning->code : kUnknownCode;
}
}  // namespace

int RunCommand(std::vector<std::wstring> given)
{
    Arguments arguments(std::move(given));
    const bool kill = arguments.TakeFlag(L"--kill");
    const int limit = arguments.TakeNumber(L"--timeout").value_or(kDefaultLimitSeconds);
    const std::wstring tool = arguments.TakeValue(L"--tool").value_or(ToolBesideUs());
    arguments.TakeOperands(0, 0);
    if (limit < 1 || limit > kLongestLimitSeconds)
    {
        throw UsageError("--timeout wants 1 to " + std::to_string(kLongestLimitSeconds) + " seconds");
    }

    const std::wstring mark = MakeMark();
    std::wstring commandLine = L"\"" + tool + L"\" " + mark;
    for (const std::wstring& argument : arguments.GetTail())
    {
        commandLine += L" " + QuoteArgument(argument);
    }
    const std::wstring folder = GetLogFolder();
    const std::map<std::wstring, std::uint64_t> before = LogTimes(folder);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    if (CreateProcessW(tool.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &started) == 0)
    {
        const std::string reason = SystemFailure(ToUtf8(tool), GetLastError());
        WriteError("TavikToolCompanion: " + reason + "\n");
        Finding finding;
        finding.candidates.push_back({&kNotStarted, {reason}});
        return Report(finding);
    }
    const EventHandle process(started.hProcess);  // closed like one
    CloseHandle(started.hThread);
    Ended ended = Wait(process.Get(), limit, kill);

    const std::optional<std::wstring> log = FindOwnLog(folder, before, mark);
    if (!ended.exitCode)
    {
        ended = Wait(process.Get(), 0, false);  // it may have ended just now, and its log is whole then
    }
    Classifier classifier(BuiltInCatalogue(), log ? ToUtf8(*log) : std::string(), ended.exitCode);
    if (log)
    {
        try
        {
            ReadFileBytes(JoinPath(folder, *log), [&classifier](std::string_view bytes) { classifier.Feed(bytes); });
        }
        catch (const UnreadableFile& failure)  // what was read of it has to do
        {
            Complain(failure);
        }
    }
    Finding finding = classifier.Finish();
    if (!ended.isOver)
    {
        finding.candidates.assign(1, {kill ? &kEndedHere : &kTimedOut, {finding.lastLine}});
    }
    return Report(finding);
}
}  // namespace repair
