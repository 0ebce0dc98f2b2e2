#include "companion/explanation.h"

#include <algorithm>
#include <utility>

#include "companion/json.h"
#include "companion/log_name.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
constexpr size_t kTextWidth = 100;
constexpr std::string_view kIndent = "           ";

std::string_view ModeName(RunMode mode)
{
    switch (mode)
    {
        case RunMode::Check:
            return "check";
        case RunMode::Direct:
            return "direct";
        case RunMode::Any:
            break;
    }
    return "unknown";
}

std::string_view RetryInWords(std::string_view retry)
{
    if (retry == "yes")
    {
        return "yes";
    }
    if (retry == "later")
    {
        return "later, it may work by itself then";
    }
    if (retry == "after-restart")
    {
        return "after a restart";
    }
    return "no";
}

// A control character of a damaged log would move the cursor of a terminal, or worse.
std::string Printable(std::string_view utf8)
{
    std::string text;
    for (const char32_t c : ToUtf32(utf8))
    {
        const bool isControl = (c < 0x20 && c != U'\t') || (c >= 0x7F && c < 0xA0);
        AppendUtf8(text, isControl ? U'\uFFFD' : c);
    }
    return text;
}

// "Label      text", the text broken between words and indented.
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
    return text;
}
}  // namespace

Classifier::Classifier(const Catalogue& catalogue, std::string log, std::optional<int> exitCode,
                       std::function<void(const Line&)> onLine)
    : recogniser_(catalogue, exitCode), reader_([this](const Line& line) { Take(line); }), onLine_(std::move(onLine))
{
    finding_.log = std::move(log);
    finding_.exitCode = exitCode;
}

void Classifier::Take(const Line& line)
{
    if (line.begins)
    {
        ++finding_.lines;
        // What is too long is none of the tool's lines, but a line there is.
        const std::string_view text = line.ends ? line.text : std::string_view("\xEF\xBF\xBD");
        recogniser_.Feed(text);
        finding_.lastLine = text;
    }
    if (onLine_)
    {
        onLine_(line);
    }
}

Finding Classifier::Finish()
{
    reader_.Finish();
    finding_.mode = recogniser_.GetMode();
    finding_.candidates = recogniser_.Finish();
    finding_.damage = reader_.GetDamage();
    return finding_;
}

Finding ClassifyWithoutLog(const Catalogue& catalogue, std::optional<int> exitCode)
{
    return Classifier(catalogue, {}, exitCode).Finish();
}

std::string ExplainAsText(const Finding& finding)
{
    std::string text = Paragraph("Log", finding.log.empty() ? "none" : Printable(finding.log));
    if (const auto began = ParseLogName(finding.log))
    {
        text += Paragraph("Began", FormatLocalTime(*began));
    }
    if (finding.exitCode)
    {
        text += Paragraph("Exit code", std::to_string(*finding.exitCode));
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
                                         "; the exit code (--exit) would tell which");
    }
    for (const Candidate& candidate : finding.candidates)
    {
        text += finding.candidates.size() > 1 ? "\n" + Describe(candidate) : Describe(candidate);
    }
    return text;
}

std::string ExplainAsJson(const Finding& finding, const std::function<std::string(std::string_view)>& clean)
{
    const auto cleaned = [&clean](std::string_view text) { return clean ? clean(text) : std::string(text); };
    JsonObject object;
    if (finding.log.empty())
    {
        object.AddNull("log");
    }
    else
    {
        object.Add("log", cleaned(finding.log));
    }
    const auto began = ParseLogName(finding.log);
    if (began)
    {
        object.Add("began", FormatLocalTime(*began));
    }
    else
    {
        object.AddNull("began");
    }
    object.Add("mode", ModeName(finding.mode));
    if (finding.exitCode)
    {
        object.Add("exit", *finding.exitCode);
    }
    else
    {
        object.AddNull("exit");
    }
    std::vector<std::string> ids;
    for (const Candidate& candidate : finding.candidates)
    {
        ids.emplace_back(candidate.meaning->id);
    }
    if (finding.candidates.size() == 1)
    {
        const Meaning& meaning = *finding.candidates.front().meaning;
        std::vector<std::string> evidence;
        for (const std::string& line : finding.candidates.front().evidence)
        {
            evidence.push_back(cleaned(line));
        }
        object.Add("outcome", meaning.id).Add("title", meaning.title).Add("code", meaning.code);
        object.Add("retry", meaning.retry).Add("meaning", meaning.owner).Add("cause", meaning.cause);
        object.Add("action", meaning.action).Add("evidence", evidence);
    }
    else
    {
        object.AddNull("outcome").AddNull("code");
    }
    object.Add("candidates", ids).Add("lines", finding.lines);
    object.Add("last_line", cleaned(finding.lastLine));
    object.Add("damage", DescribeDamage(finding.damage));
    return object.Text();
}
}  // namespace repair
