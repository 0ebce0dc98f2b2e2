// The explanation of one run: as text for people, and as a JSON object for programs.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "companion/recogniser.h"

namespace repair
{
// Returns "Label      text", the text wrapped between words and indented.
std::string Paragraph(std::string_view label, std::string_view text);

// Replaces control characters, which a damaged log may contain and a terminal would obey.
std::string Printable(std::string_view utf8);

// Bytes that are not UTF-8 become U+FFFD.
std::string InOneLine(const nlohmann::ordered_json& object);

// Returns "23.40, desktop edition"; `edition` is "desktop", "store", "none" or empty if it is unknown.
std::string DescribeInstalled(std::string_view edition, std::string_view version);

// Returns several lines, each with a line feed. U+FFFD replaces the log's control characters, except tabs.
std::string ExplainAsText(const Finding& finding);

// Returns what the owner of the PC needs: the outcome in plain words and the next step.
std::string ExplainInPlainWords(const Finding& finding);

// Returns the line to type if the next step is to install with the installer that the log names, otherwise nothing.
std::string CommandToInstall(const Finding& finding);

// What an exit code can mean if the log is not at hand. `given` is the code as the user wrote it.
std::string ExitAsText(int exitCode, std::string_view given, std::string_view logFolder);
std::string ExitAsJson(int exitCode);

// Returns one line without its end. Applies `clean` to every text that comes from the machine: file name and lines.
std::string ExplainAsJson(const Finding& finding, const std::function<std::string(std::string_view)>& clean = nullptr);

// The same for a log that cannot be read.
std::string UnreadableAsJson(std::string_view log, std::string_view failure);
}  // namespace repair
