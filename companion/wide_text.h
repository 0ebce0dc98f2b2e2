// Between the UTF-16 of Windows and UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace repair
{
// Half a surrogate pair, which file names may have, becomes U+FFFD.
std::string ToUtf8(std::wstring_view text);

std::wstring ToWide(std::string_view utf8);
}  // namespace repair
