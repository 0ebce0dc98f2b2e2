// The calls into SetupAPI that the tool's look at the adapters and their driver packages consists of.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench
{
// The section names of an INF, which SetupAPI does not tell.
using SectionNames = std::function<const std::vector<std::wstring>&(const std::wstring& inf)>;

// Reads a file once and takes the lines that are a section header, as plainly as possible.
std::vector<std::wstring> ReadSectionNames(const std::wstring& inf);

// Makes all calls, in the tool's order, for the adapters of the maker, and throws the answers away. Returns how many
// INF files were opened.
unsigned MakeSetupCalls(const SectionNames& names);
}  // namespace bench
