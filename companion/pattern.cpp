#include "companion/pattern.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "companion/ascii.h"

namespace repair
{
namespace
{
constexpr std::string_view kResult = "<result>";
constexpr std::string_view kFailure = "<failure>";
constexpr std::array<std::string_view, 4> kSuccess = {"0", "1641", "3010", "3011"};

// Returns the signed decimal number at the beginning of the text, or an empty text.
std::string_view LeadingNumber(std::string_view text)
{
    const size_t sign = text.starts_with('-') ? 1 : 0;
    size_t length = sign;
    while (length < text.size() && IsAsciiDigit(text[length]))
    {
        ++length;
    }
    return length == sign ? std::string_view() : text.substr(0, length);
}

long long ToNumber(std::string_view digits)
{
    long long value = 0;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), value).ec == std::errc())
    {
        return value;
    }
    using Limits = std::numeric_limits<long long>;
    return digits.starts_with('-') ? Limits::min() : Limits::max();
}

// One step of a match: whether the pattern fits the line here, and how many characters it takes in each.
struct Step
{
    bool fits = false;
    size_t inPattern = 1;
    size_t inLine = 1;
    std::optional<long long> result;
};

Step TakeStep(std::string_view pattern, std::string_view line)
{
    Step step;
    if (pattern.starts_with(kResult) || pattern.starts_with(kFailure))
    {
        const bool isResult = pattern.starts_with(kResult);
        const std::string_view number = LeadingNumber(line);
        step.fits = !number.empty() && (isResult || std::ranges::find(kSuccess, number) == kSuccess.end());
        step.inPattern = isResult ? kResult.size() : kFailure.size();
        step.inLine = number.size();
        if (isResult && step.fits)
        {
            step.result = ToNumber(number);
        }
        return step;
    }
    step.fits = !pattern.empty() && !line.empty() && pattern.front() == line.front();
    return step;
}
}  // namespace

PatternMatch MatchLine(std::string_view pattern, std::string_view line)
{
    PatternMatch match;
    size_t inPattern = 0;
    size_t inLine = 0;
    size_t afterStar = std::string_view::npos;  // position in the pattern after the last "*"
    size_t starEnds = 0;                        // position in the line up to which that "*" matches so far
    while (inPattern < pattern.size() || inLine < line.size())
    {
        if (inPattern < pattern.size() && pattern[inPattern] == '*')
        {
            afterStar = ++inPattern;
            starEnds = inLine;
            if (afterStar == pattern.size())
            {
                break;  // matches the rest of the line
            }
            continue;
        }
        const Step step = TakeStep(pattern.substr(inPattern), line.substr(inLine));
        if (step.fits)
        {
            inPattern += step.inPattern;
            inLine += step.inLine;
            match.result = step.result ? step.result : match.result;
            continue;
        }
        // On a mismatch, only the last "*" needs to take more: longer matches of earlier ones cannot help.
        if (afterStar == std::string_view::npos || starEnds == line.size())
        {
            return {};
        }
        inPattern = afterStar;
        inLine = ++starEnds;
    }
    match.matches = true;
    return match;
}
}  // namespace repair
