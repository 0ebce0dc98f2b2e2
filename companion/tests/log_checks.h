// What must hold for the companion whatever bytes a log consists of. Needs no Windows: the fuzzer uses it as well.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "companion/catalogue.h"
#include "companion/cmtrace.h"
#include "companion/explanation.h"
#include "companion/line_reader.h"
#include "companion/redaction.h"
#include "companion/unicode.h"

namespace repair::support
{
// Valid UTF-8 in which nothing was replaced that is not there as U+FFFD.
inline bool IsUtf8(std::string_view text)
{
    std::string again;
    for (const char32_t c : ToUtf32(text))
    {
        AppendUtf8(again, c);
    }
    return again == text;
}

// One line of JSON that every reader takes: no control characters, quotes in pairs.
inline bool LooksLikeJson(std::string_view text)
{
    bool inText = false;
    int depth = 0;
    for (size_t i = 0; i < text.size(); ++i)
    {
        if (static_cast<unsigned char>(text[i]) < 0x20)
        {
            return false;
        }
        if (inText && text[i] == '\\')
        {
            ++i;
            if (i == text.size() || std::string_view("\"\\u").find(text[i]) == std::string_view::npos)
            {
                return false;
            }
            continue;
        }
        inText = inText != (text[i] == '"');
        depth += inText ? 0 : text[i] == '{' || text[i] == '[' ? 1 : text[i] == '}' || text[i] == ']' ? -1 : 0;
    }
    return !inText && depth == 0 && text.starts_with('{') && text.ends_with('}');
}

// Everything that is said about these bytes, when they come in pieces of that size.
inline std::string Everything(std::string_view bytes, size_t pieceSize, std::optional<int> exitCode,
                              std::vector<std::string>& lines)
{
    Classifier classifier(BuiltInCatalogue(), "InstallVLTForWUDriver_2026-11-6_4_7_31_15.log", exitCode,
                          [&lines](const Line& line) { lines.emplace_back(line.text); });
    for (std::string_view rest = bytes; !rest.empty(); rest.remove_prefix(std::min(pieceSize, rest.size())))
    {
        classifier.Feed(rest.substr(0, pieceSize));
    }
    const Finding finding = classifier.Finish();
    return ExplainAsText(finding) + "\n" + ExplainAsJson(finding);
}

// Empty, or what does not hold for these bytes.
inline std::string WrongWith(std::string_view bytes, size_t pieceSize)
{
    std::vector<std::string> lines;
    std::vector<std::string> again;
    const std::string text = Everything(bytes, bytes.size() + 1, std::nullopt, lines);
    if (text != Everything(bytes, std::max<size_t>(pieceSize, 1), std::nullopt, again) || lines != again)
    {
        return "it depends on the pieces that the log comes in";
    }
    if (!LooksLikeJson(std::string_view(text).substr(text.rfind('\n') + 1)))
    {
        return "no JSON: " + text;
    }
    Redactor redactor;
    for (const std::string& line : lines)
    {
        if (!IsUtf8(line) || line.size() > LineReader::kLongestPiece + 4 || line.find('\n') != std::string::npos ||
            line.find('\0') != std::string::npos)
        {
            return "not a line: " + line;
        }
        const std::string traced = CmTraceLine(line, LocalTime());
        if (traced.find("]LOG]!>") != traced.rfind("]LOG]!>"))
        {
            return "two ends in a line for CMTrace: " + traced;
        }
        redactor.Learn(line);
    }
    for (const std::string& line : lines)
    {
        const std::string redacted = redactor.Redact(line);
        if (!IsUtf8(redacted))
        {
            return "no UTF-8: " + redacted;
        }
    }
    return {};
}
}  // namespace repair::support
