#include "companion/unicode.h"

#include <iterator>

#include <utf8cpp/utf8.h>

namespace repair
{
namespace
{
constexpr std::string_view kReplacementUtf8 = "\xEF\xBF\xBD";  // U+FFFD

struct FoldRange
{
    char32_t first;
    char32_t last;
    char32_t distance;  // to the lower-case letter; 1: capital and small letters alternate, starting with a capital
};

constexpr FoldRange kFoldRanges[] = {
    {U'A', U'Z', 32},     {0x00C0, 0x00D6, 32}, {0x00D8, 0x00DE, 32}, {0x0100, 0x012F, 1},  {0x0132, 0x0137, 1},
    {0x0139, 0x0148, 1},  {0x014A, 0x0177, 1},  {0x0179, 0x017E, 1},  {0x0388, 0x038A, 37}, {0x0391, 0x03A1, 32},
    {0x03A3, 0x03AB, 32}, {0x0400, 0x040F, 80}, {0x0410, 0x042F, 32}, {0x0460, 0x0481, 1},  {0x048A, 0x04BF, 1},
    {0x1E00, 0x1E95, 1},  {0x1EA0, 0x1EFF, 1},
};
constexpr bool IsSurrogate(wchar_t unit, wchar_t first)
{
    return unit >= first && unit < first + 0x400;
}
}  // namespace

std::u32string ToUtf32(std::string_view utf8)
{
    return utf8::utf8to32(utf8::replace_invalid(utf8));
}

std::wstring ToWide(std::string_view utf8)
{
    const std::string valid = utf8::replace_invalid(utf8);
    std::wstring text;
    utf8::utf8to16(valid.begin(), valid.end(), std::back_inserter(text));
    return text;
}

std::string ToUtf8(std::wstring_view text)
{
    std::string utf8;
    while (!text.empty())
    {
        const bool isHigh = IsSurrogate(text.front(), 0xD800);
        const bool isPair = isHigh && text.size() > 1 && IsSurrogate(text[1], 0xDC00);
        const size_t length = isPair ? 2 : 1;
        if (isPair || (!isHigh && !IsSurrogate(text.front(), 0xDC00)))
        {
            utf8::utf16to8(text.begin(), text.begin() + length, std::back_inserter(utf8));
        }
        else
        {
            utf8 += kReplacementUtf8;  // utfcpp would throw
        }
        text.remove_prefix(length);
    }
    return utf8;
}

char32_t Fold(char32_t character)
{
    for (const FoldRange& range : kFoldRanges)
    {
        if (character >= range.first && character <= range.last)
        {
            if (range.distance != 1)
            {
                return character + range.distance;
            }
            return (character - range.first) % 2 == 0 ? character + 1 : character;
        }
    }
    return character;
}

size_t LengthInUtf16(std::string_view utf8)
{
    return utf8::utf8to16(utf8::replace_invalid(utf8)).size();
}
}  // namespace repair
