// Patterns of the catalogue.
#pragma once

#include <optional>
#include <string_view>

namespace repair
{
struct PatternMatch
{
    bool matches = false;
    std::optional<long long> result;  // the number that "<result>" matched
};

// Matches a whole line, case-sensitively. "*" matches any text, also none; "<result>" a signed decimal number;
// "<failure>" such a number except 0, 1641, 3010 and 3011, the codes with which Windows Installer reports success. A
// number includes all its digits; beyond 64 bits it becomes the greatest or smallest number.
PatternMatch MatchLine(std::string_view pattern, std::string_view line);
}  // namespace repair
