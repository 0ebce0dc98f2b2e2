// Entries in Windows' Application log.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace repair
{
// Writes one entry of the source TavikToolCompanion, after registering it with the messages in `program`. The id is
// the outcome's, and so is its kind: information for the codes 0 and 3010, warning for 1618, otherwise error.
// Throws Failure.
void WriteEvent(std::uint32_t id, int code, const std::vector<std::wstring>& texts, const std::wstring& program);
}  // namespace repair
