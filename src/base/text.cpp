#include "base/text.h"

#include <algorithm>

namespace repair
{
namespace
{
wchar_t UpperAscii(wchar_t c)
{
    return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
}
}  // namespace

bool IsSameNoCase(wchar_t a, wchar_t b)
{
    return UpperAscii(a) == UpperAscii(b);
}

bool ContainsNoCase(std::wstring haystack, std::wstring needle)
{
    return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(), IsSameNoCase) != haystack.end();
}
}  // namespace repair
