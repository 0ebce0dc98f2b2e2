// The explanation of one run: as text for people, and as a JSON object for programs.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/catalogue.h"
#include "companion/line_reader.h"
#include "companion/recogniser.h"

namespace repair
{
struct Finding
{
    std::string log;              // name of the log; empty if there is none
    std::optional<int> exitCode;  // if the caller knows it
    RunMode mode = RunMode::kAny;
    std::vector<Candidate> candidates;
    Damage damage;
    std::uint64_t lines = 0;
    std::string lastLine;
};

// Takes the bytes of one log in order and finds the outcome of its run.
class Classifier
{
public:
    // `log`: its name, empty for a run that left none. Passes every line to `onLine` as well, if given.
    Classifier(std::string log, std::optional<int> exitCode, std::function<void(const Line&)> onLine = nullptr);

    Classifier(const Classifier&) = delete;
    Classifier& operator=(const Classifier&) = delete;
    Classifier(Classifier&&) = delete;
    Classifier& operator=(Classifier&&) = delete;
    ~Classifier() = default;

    void Feed(std::string_view bytes) { reader_.Feed(bytes); }
    // Call it once, at the end of the log, or at once if the run left none.
    Finding Finish();

private:
    void Take(const Line& line);

    Finding finding_;
    Recogniser recogniser_;
    LineReader reader_;
    std::function<void(const Line&)> onLine_;
};

// Returns several lines, each with a line feed. U+FFFD replaces the log's control characters, except tabs.
std::string ExplainAsText(const Finding& finding);

// Returns one line without its end. Applies `clean` to every text that comes from the machine: file name and lines.
std::string ExplainAsJson(const Finding& finding, const std::function<std::string(std::string_view)>& clean = nullptr);

// The same for a log that cannot be read.
std::string UnreadableAsJson(std::string_view log, std::string_view failure);
}  // namespace repair
