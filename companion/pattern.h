// Patterns of the catalogue.
#pragma once

#include <optional>
#include <string_view>

namespace repair
{
struct PatternMatch
{
    bool matches = false;
    std::optional<long long> result;  // what "<result>" stood for, when the pattern has it
};

// Matches a whole line. "*" stands for any text, also none; "<result>" for a signed decimal number; "<failure>" for one
// other than 0, 1641, 3010 and 3011, the codes of Windows Installer that mean success. A number is taken as long as its
// digits go, and one beyond 64 bits as the greatest or smallest of these. Everything else stands for itself, letter
// case included.
PatternMatch MatchLine(std::string_view pattern, std::string_view line);
}  // namespace repair
