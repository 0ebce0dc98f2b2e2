// Comparison of wide text without regard to the case of the letters A to Z; all other characters must be equal.
#pragma once

#include <string>

namespace repair
{
bool IsSameNoCase(wchar_t a, wchar_t b);

// True if the needle occurs anywhere in the haystack. An empty needle occurs in every haystack that is not empty.
bool ContainsNoCase(std::wstring haystack, std::wstring needle);
}  // namespace repair
