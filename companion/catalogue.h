// The catalogue of outcomes: how each is recognised and what it means. The build makes the table from
// companion/outcomes.toml, whose head states the rules.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace repair
{
enum class RunMode
{
    kAny,
    kCheck,   // without "-VLT -Install"
    kDirect,  // with both
    kRun,     // no log matches: the command `run` sets it
};

enum class ExitRule
{
    kAny,
    kListed,    // one of `exits`
    kNegative,  // below zero
    kResult,    // the number that was remembered
};

using PatternList = std::span<const std::uint16_t>;  // indexes into Catalogue::patterns
using NumberList = std::span<const long long>;

// The explanation of an outcome; UTF-8.
struct Meaning
{
    std::string_view id;
    std::string_view title;
    std::string_view owner;
    std::string_view cause;
    std::string_view action;
    std::string_view retry;   // "no", "yes", "later" or "after-restart"
    int code = 0;             // what a deployment system should see: 0, 3010, 1618 or 1603
    std::uint32_t event = 0;  // id in the Application log
};

struct Outcome
{
    Meaning meaning;
    RunMode mode = RunMode::kAny;
    ExitRule exitRule = ExitRule::kAny;
    NumberList exits;
    NumberList exitNot;
    PatternList lines;     // in this order
    NumberList result;     // if given, the remembered number is one of these
    NumberList resultNot;  // and none of these
    PatternList oneOf;
    PatternList without;
    PatternList withoutAfter;
    PatternList last;
    bool wantsLog = true;     // false: no log, or an empty one
    bool isFallback = false;  // counts only if no other outcome matches
};

struct Catalogue
{
    std::span<const std::string_view> patterns;  // each once
    std::span<const Outcome> outcomes;
};

// Returns the catalogue of companion/outcomes.toml.
const Catalogue& BuiltInCatalogue();
}  // namespace repair
