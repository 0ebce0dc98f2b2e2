#include "base/text.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <iterator>

namespace repair
{
namespace
{
wchar_t UpperAscii(wchar_t c)
{
    return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
}
}  // namespace

bool ContainsNoCase(std::wstring haystack, std::wstring needle)
{
    const auto found = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                                   [](wchar_t a, wchar_t b) { return UpperAscii(a) == UpperAscii(b); });
    return found != haystack.end();
}

std::wstring FormatLine(const wchar_t* format, ...)
{
    wchar_t buffer[kLongestLine + 1];
    va_list arguments;
    va_start(arguments, format);
    const size_t length = FormatLineInto(buffer, format, arguments);
    va_end(arguments);
    return std::wstring(buffer, length);
}

size_t FormatLineInto(wchar_t (&buffer)[kLongestLine + 1], const wchar_t* format, va_list arguments)
{
    std::fill(std::begin(buffer), std::end(buffer), L'\0');
    // The underscore name is the only one in which "%s" is wide text with every compiler we use.
    _vsnwprintf(buffer, kLongestLine, format, arguments);
    buffer[kLongestLine] = L'\0';  // a cut text comes back without a terminator
    return std::wcslen(buffer);
}
}  // namespace repair
