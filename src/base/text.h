// Wide text shared by all folders: comparison and formatting of log lines.
#pragma once

#include <cstdarg>
#include <string>

namespace repair
{
// The longest line that reaches the log, in UTF-16 units; FormatLine cuts there.
inline constexpr int kLongestLine = 1023;

// True when the needle occurs anywhere in the haystack, the letters A to Z compared without regard to case (every other
// character must be equal). An empty needle occurs in every haystack that is not empty.
bool ContainsNoCase(std::wstring haystack, std::wstring needle);

// Formats with the meaning of the wide printf family of the Windows C runtime: "%s" and "%ls" take wide text, "%hs"
// narrow text (each byte becomes one character). The result is cut after kLongestLine characters and at the first NUL.
// A format that the runtime rejects yields what was written before the fault.
std::wstring FormatLine(const wchar_t* format, ...);

// FormatLine into the caller's memory, terminated; returns the length. For the log, which needs no text of its own.
size_t FormatLineInto(wchar_t (&buffer)[kLongestLine + 1], const wchar_t* format, va_list arguments);
}  // namespace repair
