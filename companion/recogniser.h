// Finds out which outcome of the catalogue a run had, from its exit code and its log.
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
    std::vector<std::string> evidence;  // lines of the log that decided, in their order
};

// Keeps a few lines of the log at the most, however long it is.
class Recogniser
{
public:
    // Without an exit code nothing is excluded by it, so that several outcomes may remain. The catalogue has to outlive
    // the object.
    Recogniser(const Catalogue& catalogue, std::optional<int> exitCode);

    // The lines of the log in their order, without line ends. None at all: there is no log, or it is empty.
    void Feed(std::string_view line);

    // The outcomes that match everything that was fed, in the order of the catalogue.
    [[nodiscard]] std::vector<Candidate> Finish() const;

    // As the lines so far tell; Any as long as there are none.
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

    const Catalogue& catalogue_;
    std::optional<int> exitCode_;
    std::vector<State> states_;
    std::vector<PatternMatch> matches_;  // of each pattern with the line in hand
    std::uint64_t lines_ = 0;
    std::string lastLine_;
    bool isCheck_ = false;
};
}  // namespace repair
