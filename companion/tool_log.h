// The lines that the tool's code logs inside this program. They are kept in memory: only the tool writes logs.
#pragma once

#include <string>
#include <vector>

namespace repair
{
// Returns the lines since the last call, in UTF-8.
std::vector<std::string> TakeToolLog();
}  // namespace repair
