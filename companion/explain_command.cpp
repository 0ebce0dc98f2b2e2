// explain: what happened in a run, by its log.
#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>

#include <windows.h>

#include <CLI/CLI.hpp>

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
    bool asJson = false;
    bool withoutLog = false;
};

struct LogOfRun
{
    std::wstring path;  // empty: the run left no log
    std::optional<int> exitCode;
};

// Reads an exit code: a signed 32-bit number in decimal digits. Windows also shows exit codes unsigned; such a number
// becomes the signed one with the same bits. Returns nothing for any other text.
std::optional<int> ParseExitCode(std::string_view text)
{
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
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
        logs.push_back({ToWide(line.text.substr(tab + 1)), exitCode});
    });
}

std::vector<LogOfRun> LogsToExplain(const ExplainOptions& options)
{
    const std::optional<int> exitCode = ParseExitCode(options.exitCode);
    if (options.withoutLog)
    {
        return {{{}, exitCode}};
    }
    std::vector<LogOfRun> logs;
    for (const std::string& log : options.logs)
    {
        if (log.starts_with('@'))
        {
            AddListed(ToWide(log.substr(1)), logs);
        }
        else
        {
            logs.push_back({ToWide(log), exitCode});
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
    return recogniser.Finish();
}

int ExecuteExplain(const ExplainOptions& options)
{
    if (options.withoutLog != options.logs.empty())
    {
        throw CLI::ValidationError("LOG", "name the log of the run, or give --no-log if the run left none");
    }
    const std::vector<LogOfRun> logs = LogsToExplain(options);
    if (logs.size() > 1 && !options.asJson)
    {
        throw CLI::ValidationError("LOG", "several logs need --json");
    }
    int result = kDone;
    for (const LogOfRun& log : logs)
    {
        try
        {
            const Finding finding = Explain(log);
            WriteOutput(options.asJson ? ExplainAsJson(finding) + "\n" : ExplainAsText(finding));
            result = finding.candidates.empty() ? kFailed : result;
        }
        catch (const UnreadableFile& failure)  // go on with the other logs
        {
            WriteError(failure.what());
            result = kFailed;
        }
    }
    return result;
}
}  // namespace

void AddExplainCommand(CLI::App& program, int& result)
{
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App& command = *program.add_subcommand("explain", "Names the outcome of a run and the next step.");
    command
        .add_option(
            "LOG", options->logs,
            "the log; with --json several logs, or @LIST:\na text file, each line exit code, tab, path of a log")
        ->type_name("");
    command.add_option("--exit", options->exitCode, "exit code of the run; without it several outcomes may remain")
        ->type_name("NUMBER")
        ->check([](const std::string& text) {
            return ParseExitCode(text) ? "" : "\"" + text + "\" is not a 32-bit number";
        });
    command.add_flag("--json", options->asJson, "print one JSON object per run, each on one line");
    command.add_flag("--no-log", options->withoutLog, "the run left no log");
    command.footer(
        "Examples:\n"
        "  TavikToolCompanion explain InstallVLTForWUDriver_2026-11-6_4_7_31_15.log --exit 1618\n"
        "  TavikToolCompanion explain --no-log --exit 3\n"
        "  TavikToolCompanion explain --json @runs.txt");
    command.callback([options, &result] { result = ExecuteExplain(*options); });
}
}  // namespace repair
