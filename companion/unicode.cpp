#include "companion/unicode.h"

namespace repair
{
namespace
{
constexpr char32_t kReplacement = 0xFFFD;

// The character at the beginning; `length` becomes its bytes.
char32_t DecodeFirst(std::string_view utf8, size_t& length)
{
    const auto first = static_cast<unsigned char>(utf8.front());
    length = 1;
    if (first < 0x80)
    {
        return first;
    }
    const size_t wanted = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || utf8.size() < wanted)
    {
        return kReplacement;
    }
    char32_t character = first & (0x7FU >> wanted);
    for (size_t i = 1; i < wanted; ++i)
    {
        const auto next = static_cast<unsigned char>(utf8[i]);
        if ((next & 0xC0) != 0x80)
        {
            return kReplacement;
        }
        character = character << 6 | (next & 0x3FU);
    }
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (character < kSmallest[wanted] || character > 0x10FFFF || (character >= 0xD800 && character <= 0xDFFF))
    {
        return kReplacement;
    }
    length = wanted;
    return character;
}

struct FoldRange
{
    char32_t first;
    char32_t last;
    char32_t distance;  // to the lower-case letter; 1: capital and small letters alternate, capitals are even or odd
                        // like `first`
};

constexpr FoldRange kFoldRanges[] = {
    {U'A', U'Z', 32},     {0x00C0, 0x00D6, 32}, {0x00D8, 0x00DE, 32}, {0x0100, 0x012F, 1},  {0x0132, 0x0137, 1},
    {0x0139, 0x0148, 1},  {0x014A, 0x0177, 1},  {0x0179, 0x017E, 1},  {0x0388, 0x038A, 37}, {0x0391, 0x03A1, 32},
    {0x03A3, 0x03AB, 32}, {0x0400, 0x040F, 80}, {0x0410, 0x042F, 32}, {0x0460, 0x0481, 1},  {0x048A, 0x04BF, 1},
    {0x1E00, 0x1E95, 1},  {0x1EA0, 0x1EFF, 1},
};
}  // namespace

std::u32string ToUtf32(std::string_view utf8)
{
    std::u32string text;
    text.reserve(utf8.size());
    while (!utf8.empty())
    {
        size_t length = 0;
        text.push_back(DecodeFirst(utf8, length));
        utf8.remove_prefix(length);
    }
    return text;
}

void AppendUtf8(std::string& text, char32_t c)
{
    if (c < 0x80)
    {
        text.push_back(static_cast<char>(c));
        return;
    }
    if (c < 0x800)
    {
        text.push_back(static_cast<char>(0xC0 | (c >> 6)));
    }
    else
    {
        if (c < 0x10000)
        {
            text.push_back(static_cast<char>(0xE0 | (c >> 12)));
        }
        else
        {
            text.push_back(static_cast<char>(0xF0 | (c >> 18)));
            text.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        }
        text.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    }
    text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
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
    size_t length = 0;
    for (const char32_t character : ToUtf32(utf8))
    {
        length += character >= 0x10000 ? 2 : 1;
    }
    return length;
}
}  // namespace repair
