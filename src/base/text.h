// Wide text: comparison, and the text of exceptions.
#pragma once

#include <exception>
#include <string>

namespace repair
{
// These ignore the case of the letters A to Z; all other characters must be equal.
bool IsSameNoCase(wchar_t a, wchar_t b);

// True if the needle occurs anywhere in the haystack. An empty needle occurs in every haystack that is not empty.
bool ContainsNoCase(std::wstring haystack, std::wstring needle);

// Returns the text of an exception as the log shows it. The standard library mixes two encodings: paths are UTF-8,
// texts of the system have the ANSI code page. So bytes that are not UTF-8 are read in the code page.
std::wstring ExceptionText(const std::exception& error);
}  // namespace repair
