#include <windows.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "windows_check/findings.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
const char* NameOf(Verdict verdict)
{
    return verdict == Verdict::kOk ? "ok" : verdict == Verdict::kDiffers ? "differs" : "not applicable";
}

std::wstring Expected(const Fact& fact)
{
    return Joined({fact.expected.begin(), fact.expected.end()}, L" or ");
}

void Replace(std::wstring& text, const std::wstring& name, const std::wstring& by)
{
    size_t at = Lower(text).find(Lower(name));
    while (at != std::wstring::npos)
    {
        text.replace(at, name.size(), by);
        at = Lower(text).find(Lower(name), at + by.size());
    }
}

// Security identifiers of accounts begin with this; the numbers after it identify the PC or the domain.
void ReplaceAccountNumbers(std::wstring& text)
{
    const std::wstring start = L"S-1-5-21-";
    for (size_t at = text.find(start); at != std::wstring::npos; at = text.find(start, at + start.size()))
    {
        const size_t end = text.find_first_not_of(L"0123456789-", at + start.size());
        text.replace(at + start.size(), std::min(end, text.size()) - at - start.size(), L"<numbers>");
    }
}

// Removes the names of users and computers from paths and texts.
std::wstring WithoutNames(std::wstring text)
{
    for (const std::wstring variable : {L"USERPROFILE", L"USERNAME", L"COMPUTERNAME", L"USERDOMAIN"})
    {
        const std::wstring value = Environment(variable);
        if (value.size() >= 3)  // a shorter name may be part of an ordinary word
        {
            Replace(text, value, L"<" + variable + L">");
        }
    }
    ReplaceAccountNumbers(text);
    return text;
}

std::wstring Row(const std::wstring& fact, const std::wstring& expected, const std::wstring& seen,
                 const std::wstring& result)
{
    const auto padded = [](std::wstring text, size_t width) {
        text.resize(std::max(text.size(), width), L' ');
        return text + L" | ";
    };
    return padded(fact, 34) + padded(expected, 36) + padded(seen, 36) + result + L"\n";
}

// A finding that is not "ok", for the part below the table.
std::wstring Explained(const Finding& finding)
{
    const Fact& fact = *finding.fact;
    const std::wstring seen = WithoutNames(finding.seen.text);
    const std::wstring detail = WithoutNames(finding.seen.detail);
    const std::wstring start =
        L"\n" + Widened(fact.id) + L": " + Widened(NameOf(finding.verdict)) + L"\n    " + fact.says + L"\n";
    if (finding.verdict == Verdict::kNotApplicable)
    {
        return start + L"    not checked: " + seen + L"\n";
    }
    return start + L"    expected: " + Expected(fact) + L"\n    seen:     " + seen + L"\n" +
           (detail.empty() ? L"" : L"    " + detail + L"\n");
}
}  // namespace

int Count(const std::vector<Finding>& findings, Verdict verdict)
{
    return static_cast<int>(
        std::count_if(findings.begin(), findings.end(), [&](const Finding& f) { return f.verdict == verdict; }));
}

std::wstring Table(const std::vector<Finding>& findings)
{
    std::wstring text = Row(L"fact", L"expected", L"seen", L"result");
    std::wstring explanations;
    for (const Finding& finding : findings)
    {
        const bool isChecked = finding.verdict != Verdict::kNotApplicable;
        text += Row(Widened(finding.fact->id), Expected(*finding.fact),
                    isChecked ? WithoutNames(finding.seen.text) : L"-", Widened(NameOf(finding.verdict)));
        explanations += finding.verdict == Verdict::kOk ? L"" : Explained(finding);
    }
    return text + explanations;
}

std::string Json(const std::vector<Finding>& findings)
{
    using Object = nlohmann::ordered_json;
    const Pc& pc = ThisPc();
    Object json;
    json["system"] = {{"windows", Utf8(pc.version)},
                      {"wine", pc.wine.empty() ? Object() : Object(pc.wine)},
                      {"elevated", pc.isElevated},
                      {"session", pc.session},
                      {"interactive", pc.isInteractive},
                      {"code_page", GetACP()},
                      {"language", GetUserDefaultUILanguage()}};
    for (const Verdict verdict : {Verdict::kOk, Verdict::kDiffers, Verdict::kNotApplicable})
    {
        json["counts"][NameOf(verdict)] = Count(findings, verdict);
    }
    json["facts"] = Object::array();
    for (const Finding& finding : findings)
    {
        json["facts"].push_back({{"id", finding.fact->id},
                                 {"group", finding.fact->group},
                                 {"fact", Utf8(finding.fact->says)},
                                 {"expected", Utf8(Expected(*finding.fact))},
                                 {"seen", Utf8(WithoutNames(finding.seen.text))},
                                 {"detail", Utf8(WithoutNames(finding.seen.detail))},
                                 {"result", NameOf(finding.verdict)},
                                 {"ms", finding.milliseconds}});
    }
    return json.dump(1) + "\n";
}
}  // namespace windows_check
