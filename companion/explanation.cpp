#include "companion/explanation.h"

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <utility>

#include <nlohmann/json.hpp>
#include <utf8cpp/utf8.h>

#include "companion/code_words.h"
#include "companion/log_name.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
using Json = nlohmann::ordered_json;

constexpr size_t kTextWidth = 100;
constexpr std::string_view kIndent = "           ";
constexpr std::string_view kToolName = "TavikCompatibilityTool.exe";
constexpr std::string_view kMark = "-run=";  // the first argument of a tool that `run` has started

std::string_view ModeName(RunMode mode)
{
    return mode == RunMode::kCheck ? "check" : mode == RunMode::kDirect ? "direct" : "unknown";
}

std::string_view RetryInWords(std::string_view retry)
{
    return retry == "later"           ? "start the tool again later, the cause may be gone by then"
           : retry == "after-restart" ? "after a restart"
                                      : retry;
}

bool IsOfRun(const LogFacts& facts)
{
    return facts.Switches().value_or("").starts_with(kMark);
}

// Replaces what the catalogue only supposes by what the log proves.
std::string WithProof(std::string_view sentences, const LogFacts& facts)
{
    const std::string version = Printable(facts.Version());
    const bool isGone = facts.IsApplicationGone();
    const std::tuple<bool, std::string_view, std::string> proofs[] = {
        {isGone, "may be gone", "is gone"},
        {isGone, "If the application is still installed, start again with the same command. If it is gone, install it",
         IsOfRun(facts) ? "Start \"TavikToolCompanion run\" again, which installs it, or install it" : "Install it"},
        {!version.empty() && !facts.Driver().starts_with(version), "the old entries",
         "the entries of version " + version}};
    std::string text(sentences);
    for (const auto& [isProven, supposed, proven] : proofs)
    {
        const size_t at = isProven ? text.find(supposed) : std::string::npos;
        if (at != std::string::npos)
        {
            text.replace(at, supposed.size(), proven);
        }
    }
    return text;
}

// The tool alone would find no application to replace; `run` would install the lost one.
bool IsInVain(const LogFacts& facts)
{
    return facts.IsApplicationGone() && !IsOfRun(facts);
}

bool Installs(const Meaning& meaning)
{
    return meaning.action.find("-VLT -Install") != std::string_view::npos;
}

// The same start again would be in vain: an administrator must act.
Meaning OfLog(Meaning meaning, const LogFacts& facts)
{
    constexpr int kFailedCode = 1603;
    if (Installs(meaning) && IsInVain(facts))
    {
        meaning.retry = "no";
        meaning.code = kFailedCode;
    }
    return meaning;
}

// The line to type if the next step is to install with the installer that the log names; not wrapped. `run` removes
// its download.
std::string DescribeCommand(const Meaning& meaning, const LogFacts& facts)
{
    const bool installs = Installs(meaning) && facts.Source() != "given" && !facts.StartedInstaller().empty() &&
                          !(IsOfRun(facts) && facts.Source() == "download");
    return installs ? "Command    " + std::string(kToolName) + " -VLT -Install -Path \"" +
                          Printable(facts.StartedInstaller()) + "\"\n"
                    : "";
}

// The line to type for "start again" if the run had switches.
std::string DescribeSameCommand(const Meaning& meaning, const LogFacts& facts)
{
    const bool startsAgain = meaning.action.find("tart again") != std::string_view::npos && facts.Switches() &&
                             !facts.Switches()->empty() && !IsInVain(facts);
    if (!startsAgain)
    {
        return "";
    }
    const std::string& switches = *facts.Switches();
    return "Same again " +
           Printable(IsOfRun(facts)
                         ? "TavikToolCompanion run --" + switches.substr(std::min(switches.find(' '), switches.size()))
                         : std::string(kToolName) + " " + switches) +
           "\n";
}

// A log without a known end, or with a damaged one, may be a part of one; and an old product may be left unseen.
std::string DescribeNotes(const Finding& finding)
{
    const bool removedNothing = finding.facts.Edition() == "desktop" && !finding.facts.TriedRemoval() &&
                                std::ranges::any_of(finding.candidates, [](const Candidate& candidate) {
                                    return candidate.meaning->id.starts_with("repaired");
                                });
    const bool hasNoEnd = std::ranges::any_of(finding.candidates, [](const Candidate& candidate) {
        return candidate.meaning->id == "interrupted" || candidate.meaning->id == "log-cut";
    });
    const bool mayBePart = finding.lines > 0 && (hasNoEnd || finding.damage.lastLineOpen);
    return (mayBePart ? Paragraph("Note", "If this log is a copy, the copy may be incomplete: get the whole log first.")
                      : "") +
           (removedNothing
                ? Paragraph("Note",
                            "The log has no line \"Uninstalling\": the tool found no old product to remove. If "
                            "an old version is still listed under Apps, remove it there.")
                : "");
}

std::string Describe(const Candidate& candidate, const LogFacts& facts)
{
    const Meaning meaning = OfLog(*candidate.meaning, facts);
    std::string text = Paragraph("Outcome", std::string(meaning.id) + " - " + std::string(meaning.title));
    text += Paragraph("Meaning", WithProof(meaning.owner, facts));
    text += Paragraph("Cause", WithProof(meaning.cause, facts));
    text += Paragraph("Next step", WithProof(meaning.action, facts)) + DescribeCommand(meaning, facts);
    text += Paragraph("Retry", RetryInWords(meaning.retry));
    text += Paragraph("Report as", std::to_string(meaning.code) + ", to a deployment system");
    text += Paragraph("Event", std::to_string(meaning.event) + ", if \"TavikToolCompanion run\" started the tool");
    for (const std::string& line : candidate.evidence)
    {
        text += &line == &candidate.evidence.front() ? "Log lines  " : kIndent;
        text += Printable(line) + "\n";
    }
    for (const std::string& line : candidate.evidence)
    {
        const std::string code = CodeOfLine(line);
        text += code.empty() ? code : Paragraph("Code", code);
    }
    return text;
}

std::string OthersInWords(const LogFacts& facts)
{
    return facts.OtherAdapters().empty() ? "" : "not Tavik's: " + facts.OtherAdapters();
}

// What is known beside the outcome.
std::string DescribeFacts(const Finding& finding)
{
    const LogFacts& facts = finding.facts;
    std::string text;
    const auto add = [&text](std::string_view label, const std::string& value) {
        text += value.empty() ? value : Paragraph(label, Printable(value));
    };
    add("Duration", finding.seconds ? std::to_string(*finding.seconds) + " s" : "");
    add("Switches", facts.Switches() ? facts.Switches()->empty() ? "none" : *facts.Switches() : "");
    add("Driver", facts.Driver());
    add("Adapters", OthersInWords(facts));
    add("Installed", DescribeInstalled(facts.Edition(), facts.Version()));
    const std::pair<std::string_view, std::string> sources[] = {
        {"driver-package", "from the driver package, " + facts.Installer()},
        {"download", "from " + facts.Installer()},
        {"store", "from the Microsoft Store"},
        {"given", "given with -Path, " + facts.Installer()}};
    for (const auto& [source, words] : sources)
    {
        add("Installer", facts.Source() == source ? words : "");
    }
    return text;
}

// An exit code as a code of Windows, in plain words.
std::string_view ExitInWords(int exitCode)
{
    constexpr int kLastOwnCode = 3;  // the tool's own codes up to it mean something else to Windows
    return exitCode >= 0 && exitCode <= kLastOwnCode ? std::string_view() : CodeInWords(exitCode);
}

std::string DescribeWords(int exitCode)
{
    const std::string_view words = ExitInWords(exitCode);
    return words.empty() ? ""
                         : Paragraph("Code", std::to_string(InsideHresult(exitCode).value_or(exitCode)) + ": " +
                                                 std::string(words));
}

// The next step as far as it fits into a line.
std::string FirstStep(std::string_view action)
{
    size_t end = action.size() - 1;  // the full stop
    for (const std::string_view mark : {". ", ": ", "; "})
    {
        end = std::min(end, action.find(mark));
    }
    return std::string(action.substr(0, end));
}

std::string DescribeExitCode(const Finding& finding)
{
    const int code = *finding.exitCode;
    constexpr std::uint32_t kHresultOfWindows = 0x8007'0000;
    std::string text = DescribeCode(
        finding.insideCode ? static_cast<int>(kHresultOfWindows | static_cast<std::uint32_t>(code)) : code);
    if (finding.exitFits)
    {
        return text;
    }
    text += ", which does not fit this log: ";
    const bool isReported = std::ranges::any_of(finding.candidates, [&](const Candidate& candidate) {
        return OfLog(*candidate.meaning, finding.facts).code == InsideHresult(code).value_or(code);
    });
    return text + (isReported ? "it is the code that \"TavikToolCompanion run\" reports for this outcome"
                              : "it may be the code of another run, or of a program that ended the tool");
}
}  // namespace

std::string Printable(std::string_view utf8)
{
    std::string text;
    for (const char32_t c : ToUtf32(utf8))
    {
        const bool isControl = (c < 0x20 && c != U'\t') || (c >= 0x7F && c < 0xA0);
        utf8::append(isControl ? U'\uFFFD' : c, text);
    }
    return text;
}

std::string Paragraph(std::string_view label, std::string_view text)
{
    std::string out(label);
    out.append(kIndent.size() - std::min(kIndent.size(), label.size()), ' ');
    size_t column = kIndent.size();
    while (!text.empty())
    {
        const size_t length = std::min(text.find(' '), text.size());
        if (column > kIndent.size() && column + length > kTextWidth)
        {
            out.back() = '\n';
            out += kIndent;
            column = kIndent.size();
        }
        out += text.substr(0, length);
        column += length + 1;
        text.remove_prefix(std::min(text.size(), length + 1));
        if (!text.empty())
        {
            out += ' ';
        }
    }
    return out + "\n";
}

std::string InOneLine(const Json& object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string DescribeInstalled(std::string_view edition, std::string_view version)
{
    if (edition == "none")
    {
        return "none";
    }
    const std::string number(version.empty() && !edition.empty() ? "unknown version" : version);
    return edition.empty() ? number + (number.empty() ? "" : ", edition unknown")
                           : number + (edition == "store" ? ", Store edition" : ", desktop edition");
}

std::string ExplainAsText(const Finding& finding)
{
    std::string text = Paragraph("Log", finding.log.empty() ? "none" : Printable(finding.log));
    if (const auto began = ParseLogName(finding.log))
    {
        text += Paragraph("Began", FormatLocalTime(*began));
    }
    text += DescribeFacts(finding);
    if (finding.exitCode)
    {
        text += Paragraph("Exit code", DescribeExitCode(finding));
        text += InsideHresult(*finding.exitCode) ? DescribeWords(*finding.exitCode) : "";
    }
    for (const std::string& sentence : DescribeDamage(finding.damage))
    {
        text += Paragraph("Damaged", sentence);
    }
    text += DescribeNotes(finding);
    if (finding.candidates.empty())
    {
        text += Paragraph("Outcome", "none of the catalogue");
        text += Paragraph("Next step", "Read the last lines of the log. If it was cut, get the whole one.");
    }
    if (finding.candidates.size() > 1)
    {
        text += Paragraph("Outcome", "one of " + std::to_string(finding.candidates.size()) +
                                         "; the exit code (--exit) decides which");
    }
    for (const Candidate& candidate : finding.candidates)
    {
        text += (finding.candidates.size() > 1 ? "\n" : "") + Describe(candidate, finding.facts);
    }
    return text;
}

std::string ExplainInPlainWords(const Finding& finding)
{
    const auto began = ParseLogName(finding.log);
    std::string text = Paragraph("Log", Printable(finding.log));
    text += began ? Paragraph("Started", FormatLocalTime(*began).substr(0, 16).replace(10, 1, " ")) : "";
    text += DescribeNotes(finding);
    const std::string others = OthersInWords(finding.facts);
    text += others.empty() ? others : Paragraph("Adapters", Printable(others));
    if (finding.candidates.size() != 1)
    {
        text += Paragraph("Result", "The log does not say it. It is one of these:");
    }
    for (const Candidate& candidate : finding.candidates)
    {
        const Meaning& meaning = *candidate.meaning;
        text += "\n" + Paragraph("Result", meaning.title) +
                Paragraph("Meaning", WithProof(meaning.owner, finding.facts)) +
                Paragraph("What to do", WithProof(meaning.action, finding.facts)) +
                DescribeSameCommand(meaning, finding.facts) + DescribeCommand(meaning, finding.facts);
    }
    return text;
}

std::string CommandToInstall(const Finding& finding)
{
    std::string command;
    for (const Candidate& candidate : finding.candidates)
    {
        command = command.empty() ? DescribeCommand(*candidate.meaning, finding.facts) : command;
    }
    return command;
}

std::string ExitAsText(int exitCode, std::string_view given, std::string_view logFolder)
{
    constexpr std::string_view kWhere =
        "Registry   reg query HKLM\\SOFTWARE\\Tavik\\RepairTool\\LastRun /reg:64\n"
        "Event      wevtutil query-events Application /rd:true /count:1 /format:text "
        "\"/query:*[System[Provider[@Name='TavikToolCompanion']]]\"\n";
    constexpr int kLastByte = 0xFF;
    const std::string number = std::to_string(exitCode);
    std::string text = Paragraph("Exit code", DescribeCode(exitCode));
    if (const Meaning* const meaning = OutcomeOfEvent(exitCode))
    {
        text += Paragraph("Event", number + " is also the number of an event, of " + std::string(meaning->id) +
                                       ": TavikToolCompanion explain --event " + number);
    }
    for (const int whole : {-1, 1603, 1618, 3010})
    {
        text +=
            exitCode == (whole & kLastByte)
                ? Paragraph("Note", "A caller that sees only 8 bits sees " + number + " for " + std::to_string(whole) +
                                        ": TavikToolCompanion explain --exit " + std::to_string(whole))
                : "";
    }
    const std::pair<int, std::string_view> reported[] = {
        {0, "done, or nothing to do"}, {3010, "done, restart needed"}, {1618, "try again later"}, {1603, "failed"}};
    for (const auto& [code, words] : reported)
    {
        text += code == InsideHresult(exitCode).value_or(exitCode)
                    ? Paragraph("Run", "\"TavikToolCompanion run\", which deployment systems start, ends with " +
                                           std::to_string(code) + " for many outcomes: " + std::string(words) +
                                           ". Each of the next two lines shows the outcome on that PC. What follows "
                                           "them is about a tool that was started alone.") +
                          std::string(kWhere)
                    : "";
    }
    text += DescribeWords(exitCode);
    std::string_view label = "Can mean   ";
    for (const Meaning* const meaning : OutcomesOfExit(exitCode))
    {
        text += std::string(std::exchange(label, kIndent)) + std::string(meaning->id) + " - " +
                std::string(meaning->title) + ": " + FirstStep(meaning->action) + "\n";
    }
    return text + Paragraph("Next step", "The log decides: TavikToolCompanion explain LOG --exit " +
                                             std::string(given) + ". The logs are in " + std::string(logFolder) +
                                             ". If the run left no log, give --no-log instead of LOG.");
}

std::string ExitAsJson(int exitCode)
{
    const std::string_view words = ExitInWords(exitCode);
    Json object;
    object["log"] = nullptr;
    object["exit"] = exitCode;
    object["words"] = words.empty() ? Json() : Json(words);
    object["outcome"] = nullptr;
    object["candidates"] = Json::array();
    object["outcomes"] = Json::array();
    for (const Meaning* const meaning : OutcomesOfExit(exitCode))
    {
        object["candidates"].push_back(meaning->id);
        object["outcomes"].push_back(
            {{"outcome", meaning->id}, {"title", meaning->title}, {"action", meaning->action}});
    }
    return InOneLine(object);
}

std::string ExplainAsJson(const Finding& finding, const std::function<std::string(std::string_view)>& clean)
{
    const auto cleaned = [&clean](std::string_view text) { return clean ? clean(text) : std::string(text); };
    const auto orNull = [](bool isKnown, auto&& value) { return isKnown ? Json(value) : Json(); };
    const auto began = ParseLogName(finding.log);
    Json object;
    object["log"] = orNull(!finding.log.empty(), cleaned(finding.log));
    object["began"] = orNull(began.has_value(), FormatLocalTime(began.value_or(LocalTime())));
    object["mode"] = ModeName(finding.mode);
    object["exit"] = orNull(finding.exitCode.has_value(), finding.exitCode.value_or(0));
    object["exit_fits"] = orNull(finding.exitCode.has_value(), finding.exitFits);
    object["seconds"] = orNull(finding.seconds.has_value(), finding.seconds.value_or(0));
    const LogFacts& facts = finding.facts;
    object["switches"] = orNull(facts.Switches().has_value(), cleaned(facts.Switches().value_or("")));
    const std::pair<const char*, std::string> texts[] = {{"driver", facts.Driver()},
                                                         {"edition", facts.Edition()},
                                                         {"version", facts.Version()},
                                                         {"source", facts.Source()},
                                                         {"installer", cleaned(facts.Installer())}};
    for (const auto& [key, text] : texts)
    {
        object[key] = orNull(!text.empty(), text);
    }
    object["outcome"] = nullptr;
    if (finding.candidates.size() == 1)
    {
        const Meaning meaning = OfLog(*finding.candidates.front().meaning, facts);
        const std::vector<std::string>& evidence = finding.candidates.front().evidence;
        object["outcome"] = meaning.id;
        object["title"] = meaning.title;
        object["code"] = meaning.code;
        object["retry"] = meaning.retry;
        object["meaning"] = WithProof(meaning.owner, facts);
        object["cause"] = WithProof(meaning.cause, facts);
        object["action"] = WithProof(meaning.action, facts);
        object["evidence"] = Json::array();
        for (const std::string& line : evidence)
        {
            object["evidence"].push_back(cleaned(line));
        }
    }
    else
    {
        object["code"] = nullptr;
    }
    object["candidates"] = Json::array();
    for (const Candidate& candidate : finding.candidates)
    {
        object["candidates"].push_back(candidate.meaning->id);
    }
    object["lines"] = finding.lines;
    object["last_line"] = cleaned(finding.lastLine);
    object["damage"] = DescribeDamage(finding.damage);
    return InOneLine(object);
}

std::string UnreadableAsJson(std::string_view log, std::string_view failure)
{
    Json object;
    object["log"] = log;
    object["error"] = failure;
    return InOneLine(object);
}
}  // namespace repair
