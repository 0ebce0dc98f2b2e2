#include "companion/recogniser.h"

#include <algorithm>
#include <utility>

#include "companion/code_words.h"

namespace repair
{
namespace
{
// Only the check logs these. Every check logs one of them, unless it ends earlier.
constexpr std::string_view kCheckLines[] = {"Currently installed VLT is version [*",
                                            "Another instance is running. Exiting."};

bool Contains(NumberList list, long long number)
{
    return std::ranges::find(list, number) != list.end();
}

bool AllowsExit(const Outcome& outcome, std::optional<int> exitCode, std::optional<long long> number)
{
    if (!exitCode)
    {
        return true;
    }
    if (Contains(outcome.exitNot, *exitCode))
    {
        return false;
    }
    switch (outcome.exitRule)
    {
        case ExitRule::kListed:
            return Contains(outcome.exits, *exitCode);
        case ExitRule::kNegative:
            return *exitCode < 0;
        case ExitRule::kResult:
            return number == *exitCode;
        case ExitRule::kAny:
            break;
    }
    return true;
}

bool AllowsResult(const Outcome& outcome, std::optional<long long> number)
{
    return (outcome.result.empty() || (number && Contains(outcome.result, *number))) &&
           (!number || !Contains(outcome.resultNot, *number));
}
}  // namespace

Recogniser::Recogniser(std::string log, std::optional<int> exitCode, std::function<void(const Line&)> onLine)
    : reader_([this](const Line& line) { TakePiece(line); }),
      onLine_(std::move(onLine)),
      matches_(catalogue_.patterns.size())
{
    finding_.log = std::move(log);
    finding_.exitCode = exitCode;
    for (const Outcome& outcome : catalogue_.outcomes)
    {
        State state;
        state.outcome = &outcome;
        state.candidate.meaning = &outcome.meaning;
        state.candidate.hasEnd = !outcome.last.empty();
        states_.push_back(std::move(state));
    }
}

void Recogniser::TakePiece(const Line& line)
{
    if (line.begins)
    {
        // No line of the tool is that long; it counts as a line that matches no pattern.
        TakeLine(line.ends ? line.text : std::string_view("\xEF\xBF\xBD"));
    }
    if (onLine_)
    {
        onLine_(line);
    }
}

void Recogniser::TakeLine(std::string_view line)
{
    ++finding_.lines;
    finding_.lastLine = line;
    finding_.facts.Take(line);
    const bool isCheck =
        std::ranges::any_of(kCheckLines, [line](std::string_view pattern) { return MatchLine(pattern, line).matches; });
    if (isCheck || finding_.lines == 1)
    {
        finding_.mode = isCheck ? RunMode::kCheck : RunMode::kDirect;
    }
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
        state.candidate.evidence.emplace_back(line);
        state.lastEvidence = finding_.lines;
    }
}

bool Recogniser::Matches(const State& state, std::optional<int> exitCode) const
{
    const Outcome& outcome = *state.outcome;
    if (state.excluded || outcome.wantsLog != (finding_.lines > 0) || state.linesFound < outcome.lines.size() ||
        (outcome.mode != RunMode::kAny && outcome.mode != finding_.mode) ||
        !AllowsExit(outcome, exitCode, state.number))
    {
        return false;
    }
    const bool lastFits = outcome.last.empty() || (finding_.lines > 0 && MatchesAny(outcome.last));
    return AllowsResult(outcome, state.number) && lastFits && (outcome.oneOf.empty() || state.oneOfFound);
}

std::vector<const Meaning*> OutcomesOfExit(int exitCode)
{
    const auto allows = [](const Outcome& outcome, int code) {
        const bool isOfWindows = outcome.exitRule == ExitRule::kResult;
        return AllowsExit(outcome, code, code) && (!isOfWindows || (code > 0 && AllowsResult(outcome, code)));
    };
    std::vector<const Meaning*> found;
    for (const Outcome& outcome : BuiltInCatalogue().outcomes)
    {
        const int inside = InsideHresult(exitCode).value_or(exitCode);
        if (outcome.mode != RunMode::kRun && (allows(outcome, exitCode) || allows(outcome, inside)))
        {
            found.push_back(&outcome.meaning);
        }
    }
    return found;
}

const Meaning* OutcomeOfEvent(long long number)
{
    const std::span<const Outcome> outcomes = BuiltInCatalogue().outcomes;
    const auto found = std::ranges::find(outcomes, number, [](const Outcome& one) { return one.meaning.event; });
    return found == outcomes.end() ? nullptr : &found->meaning;
}

void TrustLog(Finding& finding)
{
    finding.exitCode = finding.insideCode ? finding.insideCode : finding.exitCode;
    if (!finding.byLog.empty())
    {
        finding.candidates = finding.byLog;
        finding.exitFits = false;
    }
}

std::vector<Candidate> Recogniser::Find(std::optional<int> exitCode, bool fallbacks) const
{
    std::vector<Candidate> found;
    for (const State& state : states_)
    {
        if (state.outcome->isFallback != fallbacks || !Matches(state, exitCode))
        {
            continue;
        }
        found.push_back(state.candidate);
        if ((!state.outcome->last.empty() || fallbacks) && state.lastEvidence != finding_.lines)
        {
            found.back().evidence.push_back(finding_.lastLine);
        }
    }
    return found;
}

// No outcome matches log and exit code.
void Recogniser::Reconsider(int exitCode)
{
    const std::optional<int> inside = InsideHresult(exitCode);
    finding_.candidates = inside ? Find(inside, false) : std::vector<Candidate>();
    if (!finding_.candidates.empty())
    {
        finding_.insideCode = inside;
        return;
    }
    // A tool that was ended from outside leaves any code, and a log without an end. A log with an end contradicts such
    // a code, and so does any known outcome if the code is one of those that `run` reports.
    constexpr long long kRunCodes[] = {0, 1603, 1618, 3010};
    const bool isRunCode = Contains(kRunCodes, inside.value_or(exitCode));
    finding_.byLog = Find(std::nullopt, false);
    const auto hasNoEnd = [](const Candidate& candidate) { return !candidate.hasEnd; };
    finding_.byLog.erase(
        isRunCode ? finding_.byLog.end() : std::remove_if(finding_.byLog.begin(), finding_.byLog.end(), hasNoEnd),
        finding_.byLog.end());
}

Finding Recogniser::Finish()
{
    finding_.damage = reader_.Finish();
    finding_.candidates = Find(finding_.exitCode, false);
    if (finding_.candidates.empty() && finding_.exitCode)
    {
        Reconsider(*finding_.exitCode);
    }
    if (finding_.candidates.empty())
    {
        finding_.candidates = Find(finding_.exitCode, true);
    }
    return finding_;
}
}  // namespace repair
