// Conversions between UTF-8, UTF-16 and code points, and lower case, independent of the system's language.
#pragma once

#include <string>
#include <string_view>

namespace repair
{
// U+FFFD replaces each invalid sequence.
std::u32string ToUtf32(std::string_view utf8);
std::wstring ToWide(std::string_view utf8);

// U+FFFD replaces half a surrogate pair, which file names may contain.
std::string ToUtf8(std::wstring_view text);

// Returns the lower-case letter of a Latin, Greek or Cyrillic letter, and any other character unchanged.
char32_t Fold(char32_t character);

// Returns how many UTF-16 units the text has.
size_t LengthInUtf16(std::string_view utf8);
}  // namespace repair
