// Codes of Windows in plain words, with the remedy; the same in every language.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace repair
{
// Returns the code of Windows in an HRESULT that is made of one, such as 1603 in 0x80070643: deployment systems show
// codes in this form.
std::optional<int> InsideHresult(long long code);

// Returns "1618", or for an HRESULT "-2147023293 (0x80070643, Windows code 1603)".
std::string DescribeCode(long long code);

// Returns for example "the server's name was not found: check the address and the name server (DNS)", or an empty text
// for a code that is not listed. Takes codes inside an HRESULT as well.
std::string_view CodeInWords(long long code);

// Returns the code in a line of a log that reports one.
std::optional<long long> CodeIn(std::string_view line);

// Returns "12007: " and the words for the code in a line of a log, an HRESULT alone if there are no words for it, or an
// empty text.
std::string CodeOfLine(std::string_view line);
}  // namespace repair
