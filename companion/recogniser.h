// Finds the outcome of a run in the catalogue by exit code and log.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/catalogue.h"
#include "companion/line_reader.h"
#include "companion/log_facts.h"
#include "companion/pattern.h"

namespace repair
{
struct Candidate
{
    const Meaning* meaning = nullptr;
    std::vector<std::string> evidence;  // lines of the log that matched, in order
    bool hasEnd = false;                // one of these is the last line of such a run
};

struct Finding
{
    std::string log;                // name of the log; empty if there is none
    std::optional<int> exitCode;    // if the caller knows it
    std::optional<int> insideCode;  // the code of Windows in it that decided
    RunMode mode = RunMode::kAny;
    std::vector<Candidate> candidates;  // the outcomes that match, in the order of the catalogue
    std::vector<Candidate> byLog;       // if the log contradicts the exit code: the outcomes that match without it
    bool exitFits = true;               // false: `candidates` are those of the log
    LogFacts facts;
    std::optional<int> seconds;  // how long the run took, if the caller knows it
    Damage damage;
    std::uint64_t lines = 0;
    std::string lastLine;
};

// Returns the outcomes of a run of the tool that can have this exit code, whatever its log says.
std::vector<const Meaning*> OutcomesOfExit(int exitCode);

// Returns the outcome with this number in the Application log, or null.
const Meaning* OutcomeOfEvent(long long number);

// Lets the log decide if it contradicts the exit code, which may be another program's, or another form of it.
void TrustLog(Finding& finding);

// Takes the bytes of one log in order. Keeps only the few lines that match, so memory does not grow with the log.
class Recogniser
{
public:
    // `log`: its name, empty for a run that left none. Without an exit code several outcomes may remain. Passes every
    // line to `onLine` as well, if given.
    Recogniser(std::string log, std::optional<int> exitCode, std::function<void(const Line&)> onLine = nullptr);

    Recogniser(const Recogniser&) = delete;
    Recogniser& operator=(const Recogniser&) = delete;
    Recogniser(Recogniser&&) = delete;
    Recogniser& operator=(Recogniser&&) = delete;
    ~Recogniser() = default;

    void Feed(std::string_view bytes) { reader_.Feed(bytes); }
    // Call it once, at the end of the log, or at once if the run left none.
    Finding Finish();

private:
    struct State
    {
        const Outcome* outcome = nullptr;
        Candidate candidate;
        std::uint64_t lastEvidence = 0;  // number of its line
        bool excluded = false;
        size_t linesFound = 0;            // of outcome->lines
        std::optional<long long> number;  // remembered
        bool oneOfFound = false;
    };

    void TakePiece(const Line& line);
    void TakeLine(std::string_view line);
    void Follow(State& state, std::string_view line);
    [[nodiscard]] bool MatchesAny(PatternList list) const;
    [[nodiscard]] bool Matches(const State& state, std::optional<int> exitCode) const;
    [[nodiscard]] std::vector<Candidate> Find(std::optional<int> exitCode, bool fallbacks) const;
    void Reconsider(int exitCode);

    const Catalogue& catalogue_ = BuiltInCatalogue();
    Finding finding_;
    LineReader reader_;
    std::function<void(const Line&)> onLine_;
    std::vector<State> states_;
    std::vector<PatternMatch> matches_;  // of each pattern with the current line
};
}  // namespace repair
