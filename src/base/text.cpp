#include "base/text.h"

#include <algorithm>
#include <string_view>

#include <windows.h>

namespace repair
{
namespace
{
wchar_t UpperAscii(wchar_t c)
{
    return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
}

// Number of bytes of the UTF-8 character that begins with `lead`, if it is one.
size_t CharacterBytes(char lead)
{
    const auto byte = static_cast<unsigned char>(lead);
    return byte < 0x80 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
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

std::wstring ExceptionText(const std::exception& error)
{
    std::wstring text;
    for (std::string_view rest = error.what(); !rest.empty();)
    {
        wchar_t character[2] = {};  // two units above U+FFFF
        size_t bytes = std::min(CharacterBytes(rest.front()), rest.size());
        int units =
            MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, rest.data(), static_cast<int>(bytes), character, 2);
        if (units == 0)
        {
            bytes = IsDBCSLeadByte(static_cast<BYTE>(rest.front())) != FALSE ? std::min<size_t>(2, rest.size()) : 1;
            units = MultiByteToWideChar(CP_ACP, 0, rest.data(), static_cast<int>(bytes), character, 2);
        }
        text.append(character, static_cast<size_t>(units));
        rest.remove_prefix(bytes);
    }
    return text;
}
}  // namespace repair
