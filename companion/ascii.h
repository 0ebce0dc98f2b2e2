// ASCII characters in UTF-8 text: lower case, digits, comparison without regard to case.
#pragma once

#include <algorithm>
#include <string_view>

namespace repair
{
constexpr char LowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool IsAsciiDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr bool EqualNoCase(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return LowerAscii(x) == LowerAscii(y); });
}

constexpr bool StartsNoCase(std::string_view text, std::string_view start)
{
    return text.size() >= start.size() && EqualNoCase(text.substr(0, start.size()), start);
}
}  // namespace repair
