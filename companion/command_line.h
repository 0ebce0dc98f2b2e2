// Command lines of other programs.
#pragma once

#include <string>
#include <string_view>

namespace repair
{
// The argument as it has to stand in a command line, so that the program gets it unchanged.
std::wstring QuoteArgument(std::wstring_view argument);
}  // namespace repair
