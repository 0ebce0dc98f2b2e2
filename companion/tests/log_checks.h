// What must hold for the companion for any bytes of a log. Needs no Windows, because the fuzzer uses it as well.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>
#include <utf8cpp/utf8.h>

#include "companion/catalogue.h"
#include "companion/cmtrace.h"
#include "companion/explanation.h"
#include "companion/line_reader.h"
#include "companion/redaction.h"

namespace repair::support
{
// Explains a log that comes in pieces of that size: as text, then as JSON in the last line. Adds its lines to `lines`.
inline std::string Everything(std::string_view bytes, size_t pieceSize, std::vector<std::string>& lines)
{
    Classifier classifier(BuiltInCatalogue(), "InstallVLTForWUDriver_2026-11-6_4_7_31_15.log", std::nullopt,
                          [&lines](const Line& line) { lines.emplace_back(line.text); });
    for (std::string_view rest = bytes; !rest.empty(); rest.remove_prefix(std::min(pieceSize, rest.size())))
    {
        classifier.Feed(rest.substr(0, pieceSize));
    }
    const Finding finding = classifier.Finish();
    return ExplainAsText(finding) + "\n" + ExplainAsJson(finding);
}

// Returns what does not hold for this line, or an empty text.
inline std::string WrongWithLine(const std::string& line)
{
    constexpr std::string_view kEnd = "]LOG]!>";
    if (!utf8::is_valid(line) || line.size() > LineReader::kLongestPiece + 4 ||
        line.find_first_of(std::string_view("\n\0", 2)) != std::string::npos)
    {
        return "not a line: " + line;
    }
    const std::string traced = CmTraceLine(line, LocalTime());
    return traced.find(kEnd) == traced.rfind(kEnd) ? "" : "two ends in a line for CMTrace: " + traced;
}

// Returns what does not hold for these bytes, or an empty text.
inline std::string WrongWith(std::string_view bytes, size_t pieceSize)
{
    std::vector<std::string> lines;
    std::vector<std::string> again;
    const std::string text = Everything(bytes, bytes.size() + 1, lines);
    if (text != Everything(bytes, std::max<size_t>(pieceSize, 1), again) || lines != again)
    {
        return "the result depends on the pieces of the log";
    }
    if (!nlohmann::json::accept(text.substr(text.rfind('\n') + 1)))
    {
        return "not JSON: " + text;
    }
    Redactor redactor;
    for (const std::string& line : lines)
    {
        if (std::string wrong = WrongWithLine(line); !wrong.empty())
        {
            return wrong;
        }
        redactor.Learn(line);
    }
    const auto bad = std::ranges::find_if(
        lines, [&redactor](const std::string& line) { return !utf8::is_valid(redactor.Redact(line)); });
    return bad == lines.end() ? "" : "redacted to invalid UTF-8: " + *bad;
}
}  // namespace repair::support
