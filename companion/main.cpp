// Process entry of TavikToolCompanion.exe.
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include <windows.h>

#include <shellapi.h>

#include "base/handles.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/failure.h"
#include "companion/wide_text.h"
#include "resources/version.h"

namespace
{
using namespace repair;

constexpr std::string_view kHelp =
    "TavikToolCompanion reads the logs of the Tavik Software Compatibility Tool.\n"
    "\n"
    "  TavikToolCompanion explain LOG [--exit N] [--json]\n"
    "  TavikToolCompanion explain --no-log [--exit N] [--json]\n"
    "  TavikToolCompanion explain --json LOG|@LIST...\n"
    "      What happened in the run, its outcome and the next step. Without the exit code several\n"
    "      outcomes may remain. LIST has one run a line: exit code, tab, path of the log.\n"
    "\n"
    "  TavikToolCompanion convert [--cmtrace] LOG [OUT]\n"
    "      The log as UTF-8 text with Windows line ends, or for CMTrace; to OUT or the standard output.\n"
    "\n"
    "  TavikToolCompanion collect FOLDER [--from FOLDER] [--name NAME]...\n"
    "      All logs of this machine (or of the folder behind --from) into FOLDER\\TavikToolLogs.zip, names\n"
    "      of users and machines replaced, and a summary, one JSON object a line, into\n"
    "      FOLDER\\TavikToolLogs.jsonl. --name: a further name to be replaced.\n"
    "\n"
    "  TavikToolCompanion run [--timeout SECONDS] [--kill] [--tool PATH] [-- SWITCH...]\n"
    "      Starts TavikCompatibilityTool.exe, which lies beside this program, with these switches, waits\n"
    "      (an hour unless told otherwise), prints the outcome as JSON and ends with 0, 3010 (restart\n"
    "      wanted), 1618 (try again later) or 1603 (failure). At the time limit the tool goes on, with\n"
    "      --kill it is ended.\n"
    "\n"
    "  TavikToolCompanion check-server URL [--release RELEASE]\n"
    "      Whether URL will do as the registry value DWXServerFolder; with a release such as 24.20 the\n"
    "      server is asked for its installer.\n"
    "\n"
    "  TavikToolCompanion --help | --version\n"
    "\n"
    "Exit code: 0 done; 1 it could not be done, or something was found wrong; 2 wrong usage; of run: see there.\n";

struct Command
{
    std::wstring_view name;
    int (*execute)(std::vector<std::wstring>);
};

constexpr Command kCommands[] = {
    {L"explain", ExplainCommand}, {L"convert", ConvertCommand},          {L"collect", CollectCommand},
    {L"run", RunCommand},         {L"check-server", CheckServerCommand},
};

bool IsHelp(const std::wstring& argument)
{
    return argument == L"--help" || argument == L"-h" || argument == L"/?";
}

int Execute(std::vector<std::wstring> arguments)
{
    if (arguments.empty())
    {
        throw UsageError("there is no command");
    }
    const auto tail = std::ranges::find(arguments, L"--");  // what stands behind is the tool's
    if (std::any_of(arguments.begin(), tail, IsHelp))
    {
        WriteOutput(kHelp);
        return kDone;
    }
    if (arguments.front() == L"--version")
    {
        WriteOutput("TavikToolCompanion " TAVIK_VERSION_TEXT "\n");
        return kDone;
    }
    const auto command = std::ranges::find(kCommands, std::wstring_view(arguments.front()), &Command::name);
    if (command == std::end(kCommands))
    {
        throw UsageError("there is no command " + ToUtf8(arguments.front()));
    }
    arguments.erase(arguments.begin());
    return command->execute(std::move(arguments));
}

std::vector<std::wstring> GivenArguments()
{
    int count = 0;
    wchar_t** const arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    const LocalMemory owner(arguments);
    return arguments == nullptr || count < 1 ? std::vector<std::wstring>()
                                             : std::vector<std::wstring>(arguments + 1, arguments + count);
}
}  // namespace

int wmain()
{
    // First of all, before any delay-loaded library: nothing comes from the folder that the program was started in.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    const Utf8Console console;
    try
    {
        return Execute(GivenArguments());
    }
    catch (const UsageError& error)
    {
        WriteError("TavikToolCompanion: " + std::string(error.what()) + "; --help tells the usage.\n");
        return kWrongUsage;
    }
    catch (const std::exception& error)
    {
        WriteError("TavikToolCompanion: " + std::string(error.what()) + "\n");
        return kFailed;
    }
}
