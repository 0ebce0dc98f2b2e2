// The release that a driver package writes into the driver key, read from the package's INF file.
#pragma once

#include <list>
#include <string>
#include <string_view>

namespace repair
{
// The value of the INF's last line "HKR,,ReleaseVersion,,<value>", or an empty text when the file cannot be opened as
// an INF or has no such line. Logs nothing; throws only on failed allocation.
std::wstring ReadInfReleaseVersion(const std::wstring& infPath);

// The section names of an INF in file order, duplicates kept. Only lines that are a header and nothing else
// count: an indented header or one with a comment behind it does not. Each byte of the file is one character, so a
// UTF-16 file has no sections; CR LF is one line end, and the byte 1A ends the file. Empty when the file cannot be
// opened. Logs nothing; throws only on failed allocation.
std::list<std::wstring> ReadInfSectionNames(const std::wstring& infPath);

// Matches a whole line against "\[(.*)\]" (ECMAScript, "." ends at line ends); the group comes back in `name`.
bool MatchSectionHeader(std::wstring_view line, std::wstring_view& name);

// Matches a whole text against "HKR,,ReleaseVersion,,(.*)", ASCII letters without regard to case; the group in `value`.
bool MatchReleaseLine(std::wstring_view text, std::wstring_view& value);
}  // namespace repair
