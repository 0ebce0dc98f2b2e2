// The commands. Each gets what stands behind its name and returns the exit code; each throws Failure when it cannot do
// its work and UsageError when the arguments make no sense.
#pragma once

#include <string>
#include <vector>

namespace repair
{
int ExplainCommand(std::vector<std::wstring> given);
int ConvertCommand(std::vector<std::wstring> given);
int CollectCommand(std::vector<std::wstring> given);
int RunCommand(std::vector<std::wstring> given);
int CheckServerCommand(std::vector<std::wstring> given);
}  // namespace repair
