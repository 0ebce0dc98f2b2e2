// The release version in a driver package's INF file, which its installation writes into the driver key.
#pragma once

#include <list>
#include <string>
#include <string_view>

namespace repair
{
// Returns the value of the INF's last line "HKR,,ReleaseVersion,,<value>", or an empty text if the file cannot be
// opened as an INF or has no such line. Logs nothing; throws only on failed allocation.
std::wstring ReadInfReleaseVersion(const std::wstring& infPath);

// Returns the section names of an INF in file order, duplicates kept, or nothing if the file cannot be opened. An
// indented header, or one with a comment after it, does not count. Each byte is one character, so a UTF-16 file has no
// sections; CR LF is one line end, the byte 1A ends the file. Logs nothing; throws only on failed allocation.
std::list<std::wstring> ReadInfSectionNames(const std::wstring& infPath);

// Matches a whole line against "\[(.*)\]" (ECMAScript, "." matches no line end) and sets `name` to the group.
bool MatchSectionHeader(std::wstring_view line, std::wstring_view& name);

// Matches a whole text against "HKR,,ReleaseVersion,,(.*)" in any case of ASCII letters and sets `value` to the group.
bool MatchReleaseLine(std::wstring_view text, std::wstring_view& value);
}  // namespace repair
