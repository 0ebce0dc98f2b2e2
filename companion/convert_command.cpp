// convert: writes a log as a text file that every program can read.
#include <algorithm>
#include <memory>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "base/files.h"
#include "companion/cmtrace.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/failure.h"
#include "companion/log_facts.h"
#include "companion/log_files.h"
#include "companion/output_file.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
struct ConvertOptions
{
    bool forCmTrace = false;
    bool replace = false;
    std::string log;
    std::string out;
};

void Convert(const ConvertOptions& options, const std::wstring& log, const std::function<void(std::string_view)>& write)
{
    const LocalTime began = ParseLogName(ToUtf8(FileNameOf(log))).value_or(LastWritten(log));
    const auto edit = [&](const Line& line) {
        if (!options.forCmTrace)
        {
            return std::string(line.text);
        }
        // Ends every record, even where the log's last line or a part of an overlong line has no end.
        return CmTraceLine(line.text, began) + (line.ends && line.hasLineEnd ? "" : "\r\n");
    };
    for (const std::string& sentence : DescribeDamage(WriteAsText(log, edit, write)))
    {
        WriteError(ToUtf8(log) + ": " + sentence);
    }
}

std::vector<std::wstring> LogsToConvert(const std::wstring& given)
{
    if (!IsFolder(given))
    {
        return ExpandWildcards(given);
    }
    std::vector<std::wstring> logs = ListLogs(given);
    std::ranges::transform(logs, logs.begin(), [&given](const std::wstring& name) { return JoinPath(given, name); });
    return logs;
}

// Throws NotALog for what `explain` does not take as a log either.
void CheckLog(const std::wstring& path)
{
    LogFacts facts;
    bool isEmpty = true;
    ReadLines(path, [&](const Line& line) {
        isEmpty = false;
        if (line.begins && line.ends && !facts.IsLog())
        {
            facts.Take(line.text);
        }
    });
    if (!isEmpty && !facts.IsLog())
    {
        throw MakeNotALog(path);
    }
}

void ConvertTo(const std::wstring& out, const ConvertOptions& options, const std::wstring& log)
{
    if (FileExists(out) && SameObject(log, out))
    {
        throw Failure(ToUtf8(out) + " is the log itself, which is never replaced: name another file");
    }
    OutputFile file(out, options.replace);
    Convert(options, log, [&file](std::string_view bytes) { file.Append(bytes); });
    file.Keep();
}

int ExecuteConvert(const ConvertOptions& options)
{
    const std::wstring out = ToWide(options.out);
    const std::vector<std::wstring> logs = LogsToConvert(ToWide(options.log));
    const bool intoFolder = IsFolder(out);
    if (logs.size() > 1 && !out.empty() && !intoFolder)
    {
        throw CLI::ValidationError("OUT", "several logs need a folder that exists, and " + options.out + " is none");
    }
    int result = kDone;
    for (const std::wstring& log : logs)
    {
        try
        {
            CheckLog(log);
            if (out.empty())
            {
                Convert(options, log, WriteOutput);
            }
            else
            {
                ConvertTo(intoFolder ? JoinPath(out, FileNameOf(log) + L".txt") : out, options, log);
            }
        }
        catch (const NotALog& failure)  // go on with the other logs
        {
            WriteError(failure.what());
            result = result == kDone ? kNotALog : result;
        }
        catch (const UnreadableFile& failure)
        {
            WriteError(failure.what());
            result = kFailed;
        }
    }
    return result;
}
}  // namespace

void AddConvertCommand(CLI::App& program, int& result)
{
    const auto options = std::make_shared<ConvertOptions>();
    CLI::App& command = *program.add_subcommand("convert", "Writes a log as UTF-8 text, or for CMTrace.");
    command.add_option("LOG", options->log, "the log, also with * and ?, or a folder with logs")
        ->type_name("")
        ->required();
    command
        .add_option("OUT", options->out,
                    "the text file, or a folder that gets NAME.log.txt of each\n"
                    "log; the standard output without it")
        ->type_name("");
    command.add_flag("--force", options->replace, "replace files that exist");
    command.add_flag("--cmtrace", options->forCmTrace, "write the format of CMTrace and OneTrace");
    command.footer(
        "Exit code: 0 done; 1 failed; 2 wrong usage; 3 a file is no log of the tool.\n"
        "\n"
        "Examples:\n"
        "  TavikToolCompanion convert InstallVLTForWUDriver_2026-11-6_4_7_31_15.log log.txt\n"
        "  TavikToolCompanion convert --cmtrace InstallVLTForWUDriver_2026-11-6_4_7_31_15.log trace.log");
    command.callback([options, &result] { result = ExecuteConvert(*options); });
}
}  // namespace repair
