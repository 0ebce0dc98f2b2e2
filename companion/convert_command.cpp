// convert: writes a log as a text file that every program can read.
#include <memory>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "companion/cmtrace.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/failure.h"
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
    std::string log;
    std::string out;
};

void Convert(const ConvertOptions& options, const std::function<void(std::string_view)>& write)
{
    const std::wstring log = ToWide(options.log);
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
        WriteError(options.log + ": " + sentence);
    }
}

int ExecuteConvert(const ConvertOptions& options)
{
    if (options.out.empty())
    {
        Convert(options, WriteOutput);
        return kDone;
    }
    OutputFile file(ToWide(options.out));
    Convert(options, [&file](std::string_view bytes) { file.Append(bytes); });
    file.Keep();
    return kDone;
}
}  // namespace

void AddConvertCommand(CLI::App& program, int& result)
{
    const auto options = std::make_shared<ConvertOptions>();
    CLI::App& command = *program.add_subcommand("convert", "Writes a log as UTF-8 text, or for CMTrace.");
    command.add_option("LOG", options->log, "the log")->type_name("")->required();
    command.add_option("OUT", options->out, "the text file; the standard output without it")->type_name("");
    command.add_flag("--cmtrace", options->forCmTrace, "write the format of CMTrace and OneTrace");
    command.footer(
        "Examples:\n"
        "  TavikToolCompanion convert InstallVLTForWUDriver_2026-11-6_4_7_31_15.log log.txt\n"
        "  TavikToolCompanion convert --cmtrace InstallVLTForWUDriver_2026-11-6_4_7_31_15.log trace.log");
    command.callback([options, &result] { result = ExecuteConvert(*options); });
}
}  // namespace repair
