// Finds the outcome of a run in the catalogue by exit code and log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/catalogue.h"
#include "companion/pattern.h"

namespace repair
{
struct Candidate
{
    const Meaning* meaning = nullptr;
    std::vector<std::string> evidence;  // lines of the log that matched, in order
};

// Keeps only the few lines that match, so memory does not grow with the log.
class Recogniser
{
public:
    // Without an exit code several outcomes may remain.
    explicit Recogniser(std::optional<int> exitCode);

    // Takes the next line of the log, without its end. No call at all means no log, or an empty one.
    void Feed(std::string_view line);

    // Returns the outcomes that match, in the order of the catalogue.
    [[nodiscard]] std::vector<Candidate> Finish() const;

    // Returns the mode by the lines so far; kAny before the first.
    [[nodiscard]] RunMode GetMode() const;

private:
    struct Evidence
    {
        std::uint64_t number = 0;  // of the line
        std::string text;
    };

    struct State
    {
        const Outcome* outcome = nullptr;
        bool excluded = false;
        size_t linesFound = 0;            // of outcome->lines
        std::optional<long long> number;  // remembered
        bool oneOfFound = false;
        std::vector<Evidence> evidence;
    };

    void Follow(State& state, std::string_view line);
    [[nodiscard]] bool MatchesAny(PatternList list) const;
    [[nodiscard]] bool Matches(const State& state) const;
    [[nodiscard]] bool AllowsExit(const State& state) const;

    const Catalogue& catalogue_ = BuiltInCatalogue();
    std::optional<int> exitCode_;
    std::vector<State> states_;
    std::vector<PatternMatch> matches_;  // of each pattern with the current line
    std::uint64_t lines_ = 0;
    std::string lastLine_;
    bool isCheck_ = false;
};
}  // namespace repair
