// explain: what happened in a run, by its log.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "base/log.h"
#include "companion/ascii.h"
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
struct ExplainOptions
{
    std::vector<std::string> logs;  // "@LIST" names a list
    std::string exitCode;
    std::string event;
    bool asJson = false;
    bool withoutLog = false;
};

struct LogOfRun
{
    std::wstring path;  // empty: the run left no log
    std::optional<int> exitCode;
    std::vector<std::wstring> others;  // paths of the older logs of the same folder, the newest first
};

// Reads an exit code: a signed 32-bit number in decimal digits, or its bits in hexadecimal ones after "0x". Windows
// also shows exit codes unsigned; such a number becomes the signed one with the same bits. Returns nothing for any
// other text.
std::optional<int> ParseExitCode(std::string_view text)
{
    const bool isHexadecimal = StartsNoCase(text, "0x") && !text.substr(2).starts_with('-');
    const std::string_view digits = text.substr(isHexadecimal ? 2 : 0);
    std::int64_t number = 0;
    const char* const end = digits.data() + digits.size();
    const std::from_chars_result parsed = std::from_chars(digits.data(), end, number, isHexadecimal ? 16 : 10);
    if (parsed.ec != std::errc() || parsed.ptr != end || number < INT32_MIN || number > UINT32_MAX)
    {
        return std::nullopt;
    }
    return static_cast<int>(static_cast<std::uint32_t>(number));
}

// Adds the runs of a list. Each line is: exit code, tab, path of the log. Either may be empty.
void AddListed(const std::wstring& list, std::vector<LogOfRun>& logs)
{
    ReadLines(list, [&](const Line& line) {
        if (line.text.empty())
        {
            return;
        }
        const size_t tab = line.text.find('\t');
        const std::string_view code = line.text.substr(0, tab);
        const std::optional<int> exitCode = ParseExitCode(code);
        if (tab == std::string_view::npos || (!exitCode && !code.empty()))
        {
            throw Failure(ToUtf8(list) + ": a line is not exit code, tab, path: " + std::string(line.text));
        }
        logs.push_back({ToWide(line.text.substr(tab + 1)), exitCode, {}});
    });
}

// The newest log of a folder.
LogOfRun NewestLog(const std::wstring& folder, std::optional<int> exitCode)
{
    std::vector<std::wstring> names = ListLogs(folder);
    if (names.empty())
    {
        throw Failure("there are no logs in " + ToUtf8(folder) + ": start the tool first; its own folder is " +
                      ToUtf8(GetLogFolder()));
    }
    std::ranges::reverse(names);
    std::ranges::transform(names, names.begin(), [&](const std::wstring& name) { return JoinPath(folder, name); });
    return {names.front(), exitCode, {names.begin() + 1, names.end()}};
}

std::vector<LogOfRun> LogsToExplain(const ExplainOptions& options)
{
    const std::optional<int> exitCode = ParseExitCode(options.exitCode);
    if (options.withoutLog)
    {
        return {{{}, exitCode, {}}};
    }
    std::vector<LogOfRun> logs;
    for (const std::string& log : options.logs)
    {
        if (log.starts_with('@'))
        {
            AddListed(ToWide(log.substr(1)), logs);
        }
        else if (IsFolder(ToWide(log)))
        {
            logs.push_back(NewestLog(ToWide(log), exitCode));
        }
        else
        {
            for (const std::wstring& path : ExpandWildcards(ToWide(log)))
            {
                logs.push_back({path, exitCode, {}});
            }
        }
    }
    return logs;
}

Finding Explain(const LogOfRun& log)
{
    Recogniser recogniser(ToUtf8(FileNameOf(log.path)), log.exitCode);
    if (!log.path.empty())
    {
        ReadFileBytes(log.path, [&recogniser](std::string_view bytes) { recogniser.Feed(bytes); });
    }
    Finding finding = recogniser.Finish();
    TrustLog(finding);
    if (finding.lines > 0 && !finding.facts.IsLog())
    {
        throw MakeNotALog(log.path);
    }
    finding.seconds = DurationOfRun(log.path);
    return finding;
}

std::string ListOthers(const std::vector<std::wstring>& paths)
{
    std::string text;
    for (const std::wstring& path : paths)
    {
        text += Paragraph(text.empty() ? "Older logs" : "", Printable(ToUtf8(FileNameOf(path))));
    }
    return text;
}

// If the newest run found no application: the installer of the last run that had one, unless that run succeeded or was
// for another driver, whose application would not fit.
std::string DescribeOlderInstaller(const Finding& newest, const LogOfRun& log)
{
    constexpr std::string_view kOr =
        "Install it again with the installer of an earlier run, if that file still exists:";
    for (size_t i = 0; i < log.others.size() && newest.facts.Edition() == "none"; ++i)
    {
        try
        {
            const Finding older = Explain({log.others[i], {}, {}});
            if (!older.facts.StartedInstaller().empty())
            {
                const bool isSameDriver = !newest.facts.Driver().empty() &&
                                          older.facts.Driver() == newest.facts.Driver() &&
                                          older.facts.Adapter() == newest.facts.Adapter();
                const std::string command = isSameDriver ? CommandToInstall(older) : std::string();
                return command.empty() ? command : Paragraph("Or", kOr) + command;
            }
        }
        catch (const Failure&)  // no log, or not readable
        {
            continue;
        }
    }
    return "";
}

// For a log that cannot be explained.
void WriteFailure(const ExplainOptions& options, const LogOfRun& log, const Failure& failure)
{
    WriteError(failure.what());
    if (options.asJson)
    {
        WriteOutput(UnreadableAsJson(ToUtf8(FileNameOf(log.path)), failure.what()) + "\n");
    }
}

// The outcome whose event has the number in the text, or null.
const Meaning* FindEvent(const std::string& text)
{
    const std::optional<int> number = ParseExitCode(text);
    return number ? OutcomeOfEvent(*number) : nullptr;
}

int ExecuteExplain(const ExplainOptions& options)
{
    if (!options.event.empty())
    {
        Finding finding;
        finding.candidates.push_back({FindEvent(options.event), {}, false});
        WriteOutput(options.asJson ? ExplainAsJson(finding) + "\n" : ExplainAsText(finding));
        return kDone;
    }
    const std::optional<int> exitCode = ParseExitCode(options.exitCode);
    if (exitCode && options.logs.empty() && !options.withoutLog)
    {
        WriteOutput(options.asJson ? ExitAsJson(*exitCode) + "\n"
                                   : ExitAsText(*exitCode, options.exitCode, ToUtf8(GetLogFolder())));
        return kDone;
    }
    if (options.withoutLog != options.logs.empty())
    {
        throw CLI::ValidationError("LOG",
                                   "name the log of the run, or give --no-log if the run left none, or --exit alone");
    }
    int result = kDone;
    bool isFirst = true;
    for (const LogOfRun& log : LogsToExplain(options))
    {
        try
        {
            const Finding finding = Explain(log);
            WriteOutput(options.asJson ? ExplainAsJson(finding) + "\n"
                                       : (isFirst ? "" : "\n") + ExplainAsText(finding) +
                                             DescribeOlderInstaller(finding, log) + ListOthers(log.others));
            result = finding.candidates.empty() ? kFailed : result;
            isFirst = false;
        }
        catch (const NotALog& failure)  // go on with the other logs
        {
            WriteFailure(options, log, failure);
            result = result == kDone ? kNotALog : result;
        }
        catch (const UnreadableFile& failure)
        {
            WriteFailure(options, log, failure);
            result = kFailed;
        }
    }
    return result;
}
}  // namespace

int ExplainToOwner(const std::wstring& path)
{
    const std::wstring given = path.empty() ? GetLogFolder() : path;
    const LogOfRun log = path.empty() || IsFolder(given) ? NewestLog(given, {}) : LogOfRun{given, {}, {}};
    try
    {
        const Finding finding = Explain(log);
        WriteOutput(ExplainInPlainWords(finding) + DescribeOlderInstaller(finding, log));
    }
    catch (const NotALog& failure)
    {
        WriteError(failure.what());
        return kNotALog;
    }
    catch (const UnreadableFile& failure)
    {
        WriteError(failure.what());
        return kFailed;
    }
    return kDone;
}

void AddExplainCommand(CLI::App& program, int& result)
{
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App& command = *program.add_subcommand("explain", "Names the outcome of a run and the next step.");
    CLI::Option* const log = command
                                 .add_option("LOG", options->logs,
                                             "one log or more, also with * and ?; a folder: its newest\n"
                                             "log; @LIST: a text file, each line exit code, tab, path\nof a log")
                                 ->type_name("");
    command
        .add_option("--event", options->event,
                    "number of an event of TavikToolCompanion in the\nApplication log: names its outcome; without LOG")
        ->type_name("NUMBER")
        ->excludes(log)
        ->check([](const std::string& text) {
            return FindEvent(text) != nullptr ? "" : "\"" + text + "\" is no event of TavikToolCompanion";
        });
    command
        .add_option("--exit", options->exitCode,
                    "exit code of the run, also as 0x...; without it several\n"
                    "outcomes may remain; without LOG, what it can mean")
        ->type_name("NUMBER")
        ->excludes("--event")
        ->check([](const std::string& text) {
            return ParseExitCode(text) ? "" : "\"" + text + "\" is not a 32-bit number";
        });
    command.add_flag("--json", options->asJson, "print one JSON object per run, each on one line");
    command.add_flag("--no-log", options->withoutLog, "the run left no log")->excludes("--event");
    command.footer(
        "Exit code: 0 done; 1 failed; 2 wrong usage; 3 the file is no log of the tool.\n"
        "\n"
        "Examples:\n"
        "  TavikToolCompanion explain InstallVLTForWUDriver_2026-11-6_4_7_31_15.log --exit 1618\n"
        "  TavikToolCompanion explain --exit 1618\n"
        "  TavikToolCompanion explain --event 303\n"
        "  TavikToolCompanion explain --no-log --exit 3\n"
        "  TavikToolCompanion explain --json @runs.txt");
    command.callback([options, &result] { result = ExecuteExplain(*options); });
}
}  // namespace repair
