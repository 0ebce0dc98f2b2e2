// Pieces of command lines.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace repair
{
// Returns the argument as it must be written in a command line, so that the program started with it gets it unchanged.
std::wstring QuoteArgument(std::wstring_view argument);

// Reads an exit code: a signed 32-bit number in decimal digits. Windows also shows exit codes unsigned; such a number
// becomes the signed one with the same bits. Returns nothing for any other text.
std::optional<int> ParseExitCode(std::string_view text);
}  // namespace repair
