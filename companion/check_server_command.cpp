// check-server: whether a value works as DWXServerFolder.
#include <memory>

#include <CLI/CLI.hpp>

#include "companion/commands.h"
#include "companion/console.h"
#include "companion/failure.h"
#include "companion/server_request.h"
#include "companion/server_value.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
constexpr char kAnyRelease[] = "24.20";  // to check lengths if no release is given
constexpr DWORD kOk = 200;

struct CheckServerOptions
{
    std::string value;
    std::string release;
};

void Say(bool isError, const std::string& text)
{
    WriteOutput((isError ? "error: " : "warning: ") + text + "\n");
}

// Returns false if the tool would not get an installer.
bool CheckAnswer(const std::string& url)
{
    const ServerAnswer answer = AskServer(ToWide(url));
    if (answer.error != 0)
    {
        Say(true, SystemFailure("the server cannot be asked (" + std::string(answer.step) + ")", answer.error));
        return false;
    }
    std::string said = "the server answers " + std::to_string(answer.status);
    if (answer.status >= 300 && answer.status < 400 && !answer.location.empty())
    {
        Say(true, said + " and redirects to " + answer.location +
                      ": the tool would follow it, even away from TLS; use the final address");
        return false;
    }
    if (answer.status != kOk)
    {
        Say(true, said + ": the tool accepts only 200");
        return false;
    }
    said += answer.size ? ", " + std::to_string(*answer.size) + " bytes" : ", size not announced";
    WriteOutput(said + "\n");
    if (!answer.beginsLikeProgram)
    {
        Say(true, "the server does not send a Windows program: the tool would try to run it and fail");
        return false;
    }
    return true;
}

int ExecuteCheckServer(const CheckServerOptions& options)
{
    const ServerValue checked =
        CheckServerValue(options.value, options.release.empty() ? kAnyRelease : options.release);
    for (const Remark& remark : checked.remarks)
    {
        Say(remark.isError, remark.text);
    }
    if (checked.HasErrors())
    {
        return kFailed;
    }
    WriteOutput("the tool asks for " + checked.url + "\n");
    return options.release.empty() || CheckAnswer(checked.url) ? kDone : kFailed;
}
}  // namespace

void AddCheckServerCommand(CLI::App& program, int& result)
{
    const auto options = std::make_shared<CheckServerOptions>();
    CLI::App& command =
        *program.add_subcommand("check-server", "Checks a value for DWXServerFolder, your own download server.");
    command.add_option("URL", options->value, "the value")->type_name("")->required();
    command.add_option("--release", options->release, "also ask the server for the installer of this release")
        ->type_name("RELEASE")
        ->check([](const std::string& text) {
            return text.size() < kReleaseCharacters ? "give a release such as 24.20" : "";
        });
    command.footer(
        "Examples:\n"
        "  TavikToolCompanion check-server https://mirror.example/vlt/\n"
        "  TavikToolCompanion check-server https://mirror.example/vlt/ --release 24.20");
    command.callback([options, &result] { result = ExecuteCheckServer(*options); });
}
}  // namespace repair
