// run: starts the tool, waits for its end and reports its outcome.
#include <algorithm>
#include <memory>
#include <optional>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "base/handles.h"
#include "base/log.h"
#include "companion/catalogue.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/explanation.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/recogniser.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
constexpr wchar_t kTool[] = L"TavikCompatibilityTool.exe";
constexpr int kDefaultLimitSeconds = 3600;
constexpr int kLongestLimitSeconds = 7 * 24 * 3600;
constexpr UINT kKilled = ERROR_TIMEOUT;  // exit code of a tool that this program ended

struct RunOptions
{
    int limitSeconds = kDefaultLimitSeconds;
    bool kill = false;
    std::string tool;
};

// Outcomes of the start, not of the tool; these are not in the catalogue.
constexpr std::string_view kTimeoutCause =
    "A slow download, a slow installation, or a message box that waits for an answer: see the last line of the log.";
constexpr Meaning kTimedOut = {
    .id = "timed-out",
    .title = "Time limit reached",
    .owner = "The tool was still running when the time limit was reached. It continues.",
    .cause = kTimeoutCause,
    .action = "Start again later. Use -SILENT where no user can answer a box, and a longer --timeout on slow lines.",
    .retry = "later",
    .code = 1618,
};
constexpr Meaning kEndedHere = {
    .id = "timed-out-ended",
    .title = "Ended at the time limit",
    .owner = "The tool was still running when the time limit was reached, and was ended.",
    .cause = kTimeoutCause,
    .action =
        "If the log ends after \"Uninstalling\", the previous application may be gone: install with -VLT -Install. "
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

// An argument that the tool ignores but logs in its first line, which identifies the log of this run.
std::wstring MakeMark()
{
    LARGE_INTEGER counter = {};
    QueryPerformanceCounter(&counter);
    return L"-run=" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(counter.QuadPart);
}

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

// Returns the log with our mark; other instances may have written logs meanwhile. Reports a failure, but it does not
// replace the tool's outcome.
std::optional<std::wstring> FindOwnLog(const std::wstring& folder, const std::wstring& mark)
{
    const std::string wanted = " " + ToUtf8(mark);
    try
    {
        const std::vector<std::wstring> logs = ListLogs(folder);
        const auto own = std::find_if(logs.rbegin(), logs.rend(), [&](const std::wstring& name) {  // the newest first
            return FirstLineHas(JoinPath(folder, name), wanted);
        });
        return own != logs.rend() ? std::optional(*own) : std::nullopt;
    }
    catch (const Failure& failure)
    {
        WriteError(failure.what());
        return std::nullopt;
    }
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

// Prints the finding and returns the exit code for it.
int Report(const Finding& finding)
{
    try
    {
        WriteOutput(ExplainAsJson(finding) + "\n");
    }
    catch (const Failure& failure)  // the exit code counts, even without any output
    {
        WriteError(failure.what());
    }
    return finding.candidates.size() == 1 ? finding.candidates.front().meaning->code : kUnknownCode;
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

std::wstring CommandLine(const std::wstring& tool, const std::wstring& mark, const std::vector<std::wstring>& switches)
{
    std::wstring line = L"\"" + tool + L"\" " + mark;
    for (const std::wstring& argument : switches)
    {
        line += L" " + QuoteArgument(argument);
    }
    return line;
}

// Returns the process; null after setting the last error.
EventHandle Start(const std::wstring& tool, std::wstring commandLine)
{
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    if (CreateProcessW(tool.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &started) == 0)
    {
        return EventHandle();
    }
    CloseHandle(started.hThread);
    return EventHandle(started.hProcess);  // a process is closed like an event
}

Finding Classify(const std::wstring& folder, const std::optional<std::wstring>& log, const Ended& ended)
{
    Recogniser recogniser(log ? ToUtf8(*log) : std::string(), ended.exitCode);
    if (log)
    {
        try
        {
            ReadFileBytes(JoinPath(folder, *log), [&recogniser](std::string_view bytes) { recogniser.Feed(bytes); });
        }
        catch (const UnreadableFile& failure)  // classify by the part that was read
        {
            WriteError(failure.what());
        }
    }
    return recogniser.Finish();
}

int ExecuteRun(const RunOptions& options, const std::vector<std::wstring>& switches)
{
    const std::wstring tool = options.tool.empty() ? ToolBesideUs() : ToWide(options.tool);
    const std::wstring mark = MakeMark();
    const std::wstring folder = GetLogFolder();
    const EventHandle process = Start(tool, CommandLine(tool, mark, switches));
    if (!process)
    {
        const std::string reason = SystemFailure(ToUtf8(tool), GetLastError());
        WriteError(reason);
        Finding finding;
        finding.candidates.push_back({&kNotStarted, {reason}});
        return Report(finding);
    }
    Ended ended = Wait(process.Get(), options.limitSeconds, options.kill);
    const std::optional<std::wstring> log = FindOwnLog(folder, mark);
    if (!ended.exitCode)
    {
        ended = Wait(process.Get(), 0, false);  // if it has ended by now, its log is complete
    }
    Finding finding = Classify(folder, log, ended);
    if (!ended.isOver)
    {
        finding.candidates.assign(1, {options.kill ? &kEndedHere : &kTimedOut, {finding.lastLine}});
    }
    return Report(finding);
}
}  // namespace

void AddRunCommand(CLI::App& program, int& result, const std::vector<std::wstring>& toolSwitches)
{
    const auto options = std::make_shared<RunOptions>();
    CLI::App& command =
        *program.add_subcommand("run", "Runs the tool with the switches after \"--\", and prints the outcome as JSON.");
    command.add_option("--timeout", options->limitSeconds, "time limit; an hour without it")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, kLongestLimitSeconds).description(""));
    command.add_flag("--kill", options->kill, "end the tool at the time limit; otherwise it continues");
    command.add_option("--tool", options->tool, "the tool; without it TavikCompatibilityTool.exe beside this program")
        ->type_name("PATH");
    command.footer(
        "Exit code: 0 done or nothing to do; 3010 done, restart needed; 1618 try again later; 1603 failed.\n"
        "\n"
        "Examples:\n"
        "  TavikToolCompanion run -- -SILENT\n"
        "  TavikToolCompanion run --timeout 1800 --kill -- -VLT -Install -Path C:\\vlt\\setup.exe -SILENT");
    command.callback([options, &result, &toolSwitches] { result = ExecuteRun(*options, toolSwitches); });
}
}  // namespace repair
