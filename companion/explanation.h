// The explanation of one run: as text for people, and as a JSON object for programs.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "companion/recogniser.h"

namespace repair
{
// Returns several lines, each with a line feed. U+FFFD replaces the log's control characters, except tabs.
std::string ExplainAsText(const Finding& finding);

// Returns one line without its end. Applies `clean` to every text that comes from the machine: file name and lines.
std::string ExplainAsJson(const Finding& finding, const std::function<std::string(std::string_view)>& clean = nullptr);

// The same for a log that cannot be read.
std::string UnreadableAsJson(std::string_view log, std::string_view failure);
}  // namespace repair
