// UTF-8 to code points and back, and letters in lower case, without help of a system.
#pragma once

#include <string>
#include <string_view>

namespace repair
{
// What is no UTF-8 becomes U+FFFD, one for each byte.
std::u32string ToUtf32(std::string_view utf8);

void AppendUtf8(std::string& text, char32_t character);

// The lower-case letter, for Latin, Greek and Cyrillic letters; every other character as it is.
char32_t Fold(char32_t character);

// How many UTF-16 units the text has.
size_t LengthInUtf16(std::string_view utf8);
}  // namespace repair
