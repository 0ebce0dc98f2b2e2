// What is said about one run: for people, and as one JSON object for programs.
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
    std::string log;              // name of the log; empty when there is none
    std::optional<int> exitCode;  // as the caller has it
    RunMode mode = RunMode::Any;
    std::vector<Candidate> candidates;
    Damage damage;
    std::uint64_t lines = 0;
    std::string lastLine;
};

// Takes the bytes of one log in order and says what run it was.
class Classifier
{
public:
    // `onLine`, when given, gets every line as well.
    Classifier(const Catalogue& catalogue, std::string log, std::optional<int> exitCode,
               std::function<void(const Line&)> onLine = nullptr);

    Classifier(const Classifier&) = delete;
    Classifier& operator=(const Classifier&) = delete;
    Classifier(Classifier&&) = delete;
    Classifier& operator=(Classifier&&) = delete;
    ~Classifier() = default;

    void Feed(std::string_view bytes) { reader_.Feed(bytes); }
    // The log ends here; call it once.
    Finding Finish();

private:
    void Take(const Line& line);

    Finding finding_;
    Recogniser recogniser_;
    LineReader reader_;
    std::function<void(const Line&)> onLine_;
};

// The finding of a run that has left no log.
Finding ClassifyWithoutLog(const Catalogue& catalogue, std::optional<int> exitCode);

// Several lines, each with a line feed; U+FFFD stands for the control characters of the log but tabs.
std::string ExplainAsText(const Finding& finding);

// One line without its end. `clean` is applied to every text that comes from the machine: file name and lines.
std::string ExplainAsJson(const Finding& finding, const std::function<std::string(std::string_view)>& clean = nullptr);
}  // namespace repair
