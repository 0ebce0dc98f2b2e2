// Codes of Windows in plain words, with the remedy; the same in every language.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace repair
{
// Returns for example "the server's name was not found: check the address and the name server (DNS)", or an empty text
// for a code that is not listed.
std::string_view CodeInWords(long long code);

// Returns the code in a line of a log that reports one.
std::optional<long long> CodeIn(std::string_view line);

// Returns "12007: " and the words for the code in a line of a log, or an empty text.
std::string CodeOfLine(std::string_view line);
}  // namespace repair
