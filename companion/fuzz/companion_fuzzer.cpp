// What must hold for any bytes of a log or value. scripts/fuzz builds it for this host, as a target of libFuzzer; the
// in-process tests call it with the same logs in every run.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>
#include <utf8cpp/utf8.h>

#include "companion/cmtrace.h"
#include "companion/explanation.h"
#include "companion/line_reader.h"
#include "companion/log_name.h"
#include "companion/pattern.h"
#include "companion/recogniser.h"
#include "companion/redaction.h"
#include "companion/server_value.h"

using namespace repair;

namespace
{
[[noreturn]] void Report(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

// The same rules, implemented in the simplest way; too slow for long texts.
bool MatchesSlowly(std::string_view pattern, std::string_view line)
{
    if (pattern.empty())
    {
        return line.empty();
    }
    if (pattern.front() == '*')
    {
        return MatchesSlowly(pattern.substr(1), line) || (!line.empty() && MatchesSlowly(pattern, line.substr(1)));
    }
    return !line.empty() && pattern.front() == line.front() && MatchesSlowly(pattern.substr(1), line.substr(1));
}

void CheckPattern(std::string_view text)
{
    constexpr size_t kLongest = 24;
    const std::string_view pattern = text.substr(0, std::min(text.find('\n'), kLongest));
    const std::string_view line = text.substr(std::min(text.size(), pattern.size() + 1)).substr(0, kLongest);
    const bool matches = MatchLine(pattern, line).matches;
    if (pattern.find('<') == std::string_view::npos && matches != MatchesSlowly(pattern, line))
    {
        Report("pattern \"" + std::string(pattern) + "\" and line \"" + std::string(line) + "\"");
    }
}

// Explains a log that comes in pieces of that size: as text, then as JSON in the last line. Adds its lines to `lines`.
std::string Everything(std::string_view bytes, size_t pieceSize, std::vector<std::string>& lines)
{
    Recogniser recogniser("InstallVLTForWUDriver_2026-11-6_4_7_31_15.log", std::nullopt,
                          [&lines](const Line& line) { lines.emplace_back(line.text); });
    for (std::string_view rest = bytes; !rest.empty(); rest.remove_prefix(std::min(pieceSize, rest.size())))
    {
        recogniser.Feed(rest.substr(0, pieceSize));
    }
    const Finding finding = recogniser.Finish();
    return ExplainAsText(finding) + "\n" + ExplainAsJson(finding);
}

void CheckLine(const std::string& line)
{
    constexpr std::string_view kEnd = "]LOG]!>";
    if (!utf8::is_valid(line) || line.size() > LineReader::kLongestPiece + 4 ||
        line.find_first_of(std::string_view("\n\0", 2)) != std::string::npos)
    {
        Report("not a line: " + line);
    }
    const std::string traced = CmTraceLine(line, LocalTime());
    if (traced.find(kEnd) != traced.rfind(kEnd))
    {
        Report("two ends in a line for CMTrace: " + traced);
    }
}

void CheckLog(std::string_view bytes, size_t pieceSize)
{
    std::vector<std::string> lines;
    std::vector<std::string> again;
    const std::string text = Everything(bytes, bytes.size() + 1, lines);
    if (text != Everything(bytes, std::max<size_t>(pieceSize, 1), again) || lines != again)
    {
        Report("the result depends on the pieces of the log");
    }
    if (!nlohmann::json::accept(text.substr(text.rfind('\n') + 1)))
    {
        Report("not JSON: " + text);
    }
    Redactor redactor;
    for (const std::string& line : lines)
    {
        CheckLine(line);
        redactor.Learn(line);
    }
    for (const std::string& line : lines)
    {
        if (!utf8::is_valid(redactor.Redact(line)))
        {
            Report("redacted to invalid UTF-8: " + line);
        }
    }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
    {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    switch (data[0] % 8)
    {
        case 0:
            CheckPattern(bytes);
            break;
        case 1:
            CheckServerValue(bytes, "24.20");
            ParseLogName(bytes);
            break;
        default:
            CheckLog(bytes, data[1]);
    }
    return 0;
}
