#include "companion/explanation.h"

#include <algorithm>

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

std::string_view ModeName(RunMode mode)
{
    return mode == RunMode::kCheck ? "check" : mode == RunMode::kDirect ? "direct" : "unknown";
}

std::string_view RetryInWords(std::string_view retry)
{
    return retry == "later"           ? "later, it may work by itself then"
           : retry == "after-restart" ? "after a restart"
                                      : retry;
}

std::string Describe(const Candidate& candidate)
{
    const Meaning& meaning = *candidate.meaning;
    std::string text = Paragraph("Outcome", std::string(meaning.id) + " - " + std::string(meaning.title));
    text += Paragraph("Meaning", meaning.owner);
    text += Paragraph("Cause", meaning.cause);
    text += Paragraph("Next step", meaning.action);
    text += Paragraph("Retry", RetryInWords(meaning.retry));
    text += Paragraph("Report as", std::to_string(meaning.code));
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

std::string DescribeExitCode(const Finding& finding)
{
    const int code = *finding.exitCode;
    std::string text = std::to_string(code);
    if (finding.exitFits)
    {
        return text;
    }
    text += ", which does not fit this log: ";
    const bool isReported = std::ranges::any_of(
        finding.candidates, [code](const Candidate& candidate) { return candidate.meaning->code == code; });
    return text + (isReported
                       ? "it is the code that \"TavikToolCompanion run\" reports for this outcome"
                       : "it may be the code of \"TavikToolCompanion run\", of another run, or of a program that "
                         "ended the tool");
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
    return edition.empty() ? number : number + (edition == "store" ? ", Store edition" : ", desktop edition");
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
    }
    for (const std::string& sentence : DescribeDamage(finding.damage))
    {
        text += Paragraph("Damaged", sentence);
    }
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
        text += finding.candidates.size() > 1 ? "\n" + Describe(candidate) : Describe(candidate);
    }
    return text;
}

std::string ExplainInPlainWords(const Finding& finding)
{
    const auto began = ParseLogName(finding.log);
    std::string text = Paragraph("Log", Printable(finding.log));
    text += began ? Paragraph("Started", FormatLocalTime(*began).substr(0, 16).replace(10, 1, " ")) : "";
    if (finding.candidates.size() != 1)
    {
        text += Paragraph("Result", "The log does not say it. It is one of these:");
    }
    for (const Candidate& candidate : finding.candidates)
    {
        text += "\n" + Paragraph("Result", candidate.meaning->title) + Paragraph("Meaning", candidate.meaning->owner) +
                Paragraph("What to do", candidate.meaning->action);
    }
    return text;
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
        const Meaning* const meaning = finding.candidates.front().meaning;
        const std::vector<std::string>& evidence = finding.candidates.front().evidence;
        object["outcome"] = meaning->id;
        object["title"] = meaning->title;
        object["code"] = meaning->code;
        object["retry"] = meaning->retry;
        object["meaning"] = meaning->owner;
        object["cause"] = meaning->cause;
        object["action"] = meaning->action;
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
