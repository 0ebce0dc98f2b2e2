// Process entry of TavikToolCompanion.exe.
#include <algorithm>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include <CLI/CLI.hpp>
#include <shellapi.h>

#include "base/handles.h"
#include "companion/ascii.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/unicode.h"
#include "resources/version.h"

namespace
{
using namespace repair;

constexpr char kDescription[] =
    "TavikToolCompanion reads the logs of the Tavik Software Compatibility Tool, and runs the tool.";
constexpr char kFooter[] =
    "Exit code: 0 done; 1 failed, or a check found an error; 2 wrong usage; 3 a file is no log of the tool. The\n"
    "commands status and run have more, see their help.\n"
    "A double-click explains the newest log; a log dropped on the program is explained.\n"
    "\n"
    "Examples:\n"
    "  TavikToolCompanion explain InstallVLTForWUDriver_2026-11-6_4_7_31_15.log --exit 1618\n"
    "  TavikToolCompanion collect C:\\bundle\n"
    "  TavikToolCompanion run --help";
constexpr size_t kNameColumn = 26;

std::vector<std::wstring> GivenArguments()
{
    int count = 0;
    wchar_t** const arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    const LocalMemory owner(arguments);
    return arguments == nullptr || count < 1 ? std::vector<std::wstring>()
                                             : std::vector<std::wstring>(arguments + 1, arguments + count);
}

// Removes what follows "--" and returns it. It belongs to the tool and must reach it unchanged; CLI11 would take apart
// an argument in brackets.
std::vector<std::wstring> TakeToolSwitches(std::vector<std::wstring>& arguments)
{
    if (arguments.empty() || !EqualNoCase(ToUtf8(arguments.front()), "run"))
    {
        return {};
    }
    const auto mark = std::ranges::find(arguments, L"--");
    std::vector<std::wstring> switches(mark, arguments.end());
    arguments.resize(arguments.size() - switches.size());
    if (!switches.empty())
    {
        switches.erase(switches.begin());  // the "--" itself
    }
    return switches;
}

// In reverse, as CLI11 wants them.
std::vector<std::string> ToParse(const std::vector<std::wstring>& arguments)
{
    std::vector<std::string> texts;
    for (auto argument = arguments.rbegin(); argument != arguments.rend(); ++argument)
    {
        texts.push_back(*argument == L"/?" ? "--help" : ToUtf8(*argument));
    }
    return texts;
}

void DescribeProgram(CLI::App& program, int& result, const std::vector<std::wstring>& toolSwitches)
{
    program.require_subcommand(0, 1)->ignore_case()->option_defaults()->ignore_case();
    program.set_help_flag("-h,--help", "show this help and end");
    program.set_version_flag("--version", "TavikToolCompanion " TAVIK_VERSION_TEXT "\n", "show the version and end");
    program.get_formatter()->column_width(kNameColumn);
    program.get_formatter()->label("SUBCOMMAND", "COMMAND");
    program.footer(kFooter);
    AddStatusCommand(program, result);
    AddExplainCommand(program, result);
    AddConvertCommand(program, result);
    AddCollectCommand(program, result);
    AddRunCommand(program, result, toolSwitches);
    AddCheckServerCommand(program, result);
    for (CLI::App* const command : program.get_subcommands([](CLI::App*) { return true; }))
    {
        command->group("Commands");
        command->get_help_ptr()->ignore_case();  // CLI11 makes this flag before it copies the defaults
    }
}

// True if a log, or a folder with logs, was dropped on this program or typed without a command. No command or option
// looks like that.
bool ArePaths(const std::vector<std::wstring>& arguments)
{
    return !arguments.empty() && std::ranges::all_of(arguments, [](const std::wstring& argument) {
        constexpr std::string_view kEnding = ".log";
        const std::string text = ToUtf8(argument);
        return text.find('\\') != std::string::npos ||
               EqualNoCase(text.substr(text.size() - std::min(text.size(), kEnding.size())), kEnding);
    });
}

int ExecuteForOwner(std::vector<std::wstring> paths)
{
    paths.resize(std::max<size_t>(paths.size(), 1));  // no path: the newest log
    int result = kDone;
    bool isFirst = true;
    for (const std::wstring& given : paths)
    {
        try
        {
            for (const std::wstring& path : ExpandWildcards(given))
            {
                WriteOutput(std::exchange(isFirst, false) ? "" : "\n");
                const int code = ExplainToOwner(path);
                result = code == kFailed || result == kDone ? code : result;
            }
        }
        catch (const Failure& failure)  // go on with the other paths
        {
            WriteError(failure.what());
            result = kFailed;
        }
    }
    return result;
}

int ExecuteProgram(std::vector<std::wstring> arguments)
{
    const std::vector<std::wstring> toolSwitches = TakeToolSwitches(arguments);
    int result = kDone;
    CLI::App program(kDescription, "TavikToolCompanion");
    DescribeProgram(program, result, toolSwitches);
    try
    {
        program.parse(ToParse(arguments));
        if (program.get_subcommands().empty())
        {
            WriteOutput(program.help());
            return kWrongUsage;
        }
        return result;
    }
    catch (const CLI::CallForHelp&)
    {
        WriteOutput(program.help());
        return kDone;
    }
    catch (const CLI::CallForVersion& version)
    {
        WriteOutput(version.what());
        return kDone;
    }
    catch (const CLI::ParseError& error)
    {
        std::string command = program.get_name();
        for (const CLI::App* given : program.get_subcommands())
        {
            command += " " + given->get_name();
        }
        WriteError(std::string(error.what()) + ". \"" + command + " --help\" shows the usage.");
        return kWrongUsage;
    }
}
}  // namespace

int wmain()
{
    // Before any delay-loaded library: none may come from the folder that the program was started in.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    const Utf8Console console;
    const std::vector<std::wstring> arguments = GivenArguments();
    const bool closes = HasOwnConsole();
    const bool isForOwner = ArePaths(arguments) || (closes && arguments.empty());
    int result = kFailed;
    try
    {
        result = isForOwner ? ExecuteForOwner(arguments) : ExecuteProgram(arguments);
    }
    catch (const std::exception& error)
    {
        WriteError(error.what());
    }
    if (closes && isForOwner)
    {
        WaitForKey();
    }
    return result;
}
