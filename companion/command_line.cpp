#include "companion/command_line.h"

namespace repair
{
std::wstring QuoteArgument(std::wstring_view argument)
{
    if (!argument.empty() && argument.find_first_of(L" \t\"") == std::wstring_view::npos)
    {
        return std::wstring(argument);
    }
    std::wstring quoted = L"\"";
    size_t backslashes = 0;  // just before this place; in front of a quote two of them stand for one
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
}  // namespace repair
