#include "companion/recogniser.h"

#include <algorithm>

namespace repair
{
namespace
{
// Only the check logs one of these. It always does, unless it ends before.
constexpr std::string_view kCheckLines[] = {"Currently installed VLT is version [*",
                                            "Another instance is running. Exiting."};

bool Contains(NumberList list, long long number)
{
    return std::ranges::find(list, number) != list.end();
}
}  // namespace

Recogniser::Recogniser(std::optional<int> exitCode) : exitCode_(exitCode), matches_(catalogue_.patterns.size())
{
    for (const Outcome& outcome : catalogue_.outcomes)
    {
        State state;
        state.outcome = &outcome;
        states_.push_back(std::move(state));
    }
}

void Recogniser::Feed(std::string_view line)
{
    ++lines_;
    lastLine_ = line;
    isCheck_ = isCheck_ || std::ranges::any_of(kCheckLines, [line](std::string_view pattern) {
                   return MatchLine(pattern, line).matches;
               });
    bool any = false;
    for (size_t i = 0; i < matches_.size(); ++i)
    {
        matches_[i] = MatchLine(catalogue_.patterns[i], line);
        any = any || matches_[i].matches;
    }
    if (!any)
    {
        return;
    }
    for (State& state : states_)
    {
        if (!state.excluded)
        {
            Follow(state, line);
        }
    }
}

bool Recogniser::MatchesAny(PatternList list) const
{
    return std::ranges::any_of(list, [this](std::uint16_t pattern) { return matches_[pattern].matches; });
}

void Recogniser::Follow(State& state, std::string_view line)
{
    const Outcome& outcome = *state.outcome;
    bool decides = false;
    if (state.linesFound < outcome.lines.size())
    {
        const PatternMatch& match = matches_[outcome.lines[state.linesFound]];
        if (match.matches)
        {
            ++state.linesFound;
            state.number = match.result ? match.result : state.number;
            decides = true;
        }
    }
    else if (MatchesAny(outcome.withoutAfter))
    {
        state.excluded = true;
    }
    if (MatchesAny(outcome.without))
    {
        state.excluded = true;
    }
    if (!state.oneOfFound && MatchesAny(outcome.oneOf))
    {
        state.oneOfFound = true;
        decides = true;
    }
    if (decides && !state.excluded)
    {
        state.evidence.push_back({lines_, std::string(line)});
    }
}

RunMode Recogniser::GetMode() const
{
    return lines_ == 0 ? RunMode::kAny : isCheck_ ? RunMode::kCheck : RunMode::kDirect;
}

bool Recogniser::AllowsExit(const State& state) const
{
    if (!exitCode_)
    {
        return true;
    }
    const Outcome& outcome = *state.outcome;
    if (Contains(outcome.exitNot, *exitCode_))
    {
        return false;
    }
    switch (outcome.exitRule)
    {
        case ExitRule::kListed:
            return Contains(outcome.exits, *exitCode_);
        case ExitRule::kNegative:
            return *exitCode_ < 0;
        case ExitRule::kResult:
            return state.number == *exitCode_;
        case ExitRule::kAny:
            break;
    }
    return true;
}

bool Recogniser::Matches(const State& state) const
{
    const Outcome& outcome = *state.outcome;
    if (state.excluded || outcome.wantsLog != (lines_ > 0) || state.linesFound < outcome.lines.size() ||
        (outcome.mode != RunMode::kAny && outcome.mode != GetMode()) || !AllowsExit(state))
    {
        return false;
    }
    const bool resultFits = (outcome.result.empty() || (state.number && Contains(outcome.result, *state.number))) &&
                            (!state.number || !Contains(outcome.resultNot, *state.number));
    const bool lastFits = outcome.last.empty() || (lines_ > 0 && MatchesAny(outcome.last));
    return resultFits && lastFits && (outcome.oneOf.empty() || state.oneOfFound);
}

std::vector<Candidate> Recogniser::Finish() const
{
    std::vector<Candidate> found;
    std::vector<Candidate> fallbacks;
    for (const State& state : states_)
    {
        if (!Matches(state))
        {
            continue;
        }
        Candidate candidate;
        candidate.meaning = &state.outcome->meaning;
        for (const Evidence& evidence : state.evidence)
        {
            candidate.evidence.push_back(evidence.text);
        }
        const bool lastIsNew = state.evidence.empty() || state.evidence.back().number != lines_;
        if ((!state.outcome->last.empty() || state.outcome->isFallback) && lines_ > 0 && lastIsNew)
        {
            candidate.evidence.push_back(lastLine_);
        }
        (state.outcome->isFallback ? fallbacks : found).push_back(std::move(candidate));
    }
    return found.empty() ? fallbacks : found;
}
}  // namespace repair
