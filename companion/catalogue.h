// The catalogue of outcomes: how each is recognised and what it means. The table is made from companion/outcomes.toml,
// whose head states the rules, when the program is built, so nothing has to lie beside the exe.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace repair
{
enum class RunMode
{
    Any,
    Check,   // without "-VLT -Install"
    Direct,  // with both
};

enum class ExitRule
{
    Any,
    Listed,    // one of `exits`
    Negative,  // below zero
    Result,    // the number that was remembered
};

using PatternList = std::span<const std::uint16_t>;  // places in Catalogue::patterns
using NumberList = std::span<const long long>;

// What is said about an outcome; UTF-8.
struct Meaning
{
    std::string_view id;
    std::string_view title;
    std::string_view owner;
    std::string_view cause;
    std::string_view action;
    std::string_view retry;  // "no", "yes", "later" or "after-restart"
    int code = 0;            // what a deployment system should see: 0, 3010, 1618 or 1603
};

struct Outcome
{
    Meaning meaning;
    RunMode mode = RunMode::Any;
    ExitRule exitRule = ExitRule::Any;
    NumberList exits;
    NumberList exitNot;
    PatternList lines;                 // in this order
    std::optional<NumberList> result;  // the remembered number is one of these
    NumberList resultNot;              // and none of these
    std::optional<PatternList> oneOf;
    PatternList without;
    PatternList withoutAfter;
    std::optional<PatternList> last;
    bool wantsLog = true;     // false: no log, or nothing in it
    bool isFallback = false;  // counts only when no other outcome matches
};

struct Catalogue
{
    std::span<const std::string_view> patterns;  // each once
    std::span<const Outcome> outcomes;
};

// The catalogue of companion/outcomes.toml, for the program's whole life.
const Catalogue& BuiltInCatalogue();
}  // namespace repair
