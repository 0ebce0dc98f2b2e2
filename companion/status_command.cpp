// status: what the tool would do on this machine.
#include <memory>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "companion/commands.h"
#include "companion/console.h"
#include "companion/explanation.h"
#include "companion/failure.h"
#include "companion/status.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
struct StatusOptions
{
    bool asJson = false;
    bool detect = false;
};

std::string AsText(const Status& status)
{
    std::string text;
    for (const DisplayDriverInfo& driver : status.machine.drivers)
    {
        text += Paragraph("Adapter", Printable(ToUtf8(driver.description + L", driver " + driver.releaseVersion)));
    }
    const Installed& installed = status.machine.installed;
    text += Paragraph("Installed",
                      Printable(DescribeInstalled(EditionName(installed.edition), ToUtf8(installed.edition.version))));
    if (status.lastRun)
    {
        text += Paragraph("Last run",
                          Printable(ToUtf8(status.lastRun->outcome + L", " + std::to_wstring(status.lastRun->code) +
                                           L", " + status.lastRun->started)));
    }
    return text + Paragraph("Verdict", Printable(status.sentence));
}

// The convention of Intune and Configuration Manager: a line and 0, nothing is needed; 0 alone, a repair is needed.
int Detect(const Status& status)
{
    if (status.exitCode == kFailed)
    {
        throw Failure(status.sentence);
    }
    if (status.exitCode != kStatusDue && status.exitCode != kStatusRecovery && status.exitCode != kStatusNoUsableDriver)
    {
        WriteOutput(status.sentence + "\n");
    }
    return kDone;
}

int ExecuteStatus(const StatusOptions& options)
{
    const Status status = FindStatus();
    if (options.detect)
    {
        return Detect(status);
    }
    WriteOutput(options.asJson ? InOneLine(StatusAsJson(status)) + "\n" : AsText(status));
    return status.exitCode;
}
}  // namespace

void AddStatusCommand(CLI::App& program, int& result)
{
    const auto options = std::make_shared<StatusOptions>();
    CLI::App& command =
        *program.add_subcommand("status", "Tells whether a repair is due on this machine. Changes nothing.");
    CLI::Option* const json = command.add_flag("--json", options->asJson, "print one JSON object");
    command
        .add_flag("--detect", options->detect,
                  "for detection scripts: a line and exit code 0 if no repair is\n"
                  "needed, exit code 0 without a line if one is")
        ->excludes(json);
    command.footer(
        "Exit code: 0 up to date; 1 not known; 2 wrong usage; 4 a repair is due; 5 a recovery is pending; 6 the\n"
        "application is not installed; 7 no adapter of the maker; 8 none of them has a usable driver.\n"
        "\n"
        "Examples:\n"
        "  TavikToolCompanion status --json\n"
        "  TavikToolCompanion status --detect");
    command.callback([options, &result] { result = ExecuteStatus(*options); });
}
}  // namespace repair
