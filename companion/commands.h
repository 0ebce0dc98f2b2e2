// The commands. Each function adds one command to the program: its options, its help, and what runs when the command
// line names it. That sets `result`, the exit code; it throws CLI::ParseError for arguments that make no sense
// together, and Failure if the command cannot do its work. A new command also goes into main.cpp, into COMMANDS of
// tests/test_companion.py and into docs/companion.md.
#pragma once

#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace repair
{
void AddExplainCommand(CLI::App& program, int& result);
// Prints what the owner of the PC needs of a log; an empty path: of the newest log of the tool. Returns the exit code.
int ExplainToOwner(const std::wstring& path);
void AddConvertCommand(CLI::App& program, int& result);
void AddCollectCommand(CLI::App& program, int& result);
void AddStatusCommand(CLI::App& program, int& result);
void AddCheckServerCommand(CLI::App& program, int& result);
// `toolSwitches`: the command line of the tool, set before the command runs.
void AddRunCommand(CLI::App& program, int& result, const std::vector<std::wstring>& toolSwitches);
}  // namespace repair
