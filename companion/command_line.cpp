#include "companion/command_line.h"

#include <charconv>
#include <cstdint>

namespace repair
{
std::wstring QuoteArgument(std::wstring_view argument)
{
    if (!argument.empty() && argument.find_first_of(L" \t\"") == std::wstring_view::npos)
    {
        return std::wstring(argument);
    }
    std::wstring quoted = L"\"";
    size_t backslashes = 0;  // directly before this character; before a quotation mark each must be doubled
    for (const wchar_t c : argument)
    {
        if (c == L'"')
        {
            quoted.append(backslashes + 1, L'\\');
        }
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted.push_back(c);
    }
    quoted.append(backslashes, L'\\');
    return quoted + L"\"";
}

std::optional<int> ParseExitCode(std::string_view text)
{
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end || number < INT32_MIN || number > UINT32_MAX)
    {
        return std::nullopt;
    }
    return static_cast<int>(static_cast<std::uint32_t>(number));
}
}  // namespace repair
