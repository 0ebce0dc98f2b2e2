#include "windows_check/report.h"

#include <windows.h>

#include <algorithm>

#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::wstring Expected(const Fact& fact)
{
    std::wstring text;
    for (const std::wstring_view one : fact.expected)
    {
        text += (text.empty() ? L"" : L" or ") + std::wstring(one);
    }
    return text;
}

std::wstring Lower(std::wstring text)
{
    CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
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

// Security identifiers of accounts begin with this; the numbers behind it tell the machine or the domain.
void ReplaceMachineNumbers(std::wstring& text)
{
    const std::wstring start = L"S-1-5-21-";
    for (size_t at = text.find(start); at != std::wstring::npos; at = text.find(start, at + start.size()))
    {
        const size_t end = text.find_first_not_of(L"0123456789-", at + start.size());
        text.replace(at + start.size(), std::min(end, text.size()) - at - start.size(), L"<numbers>");
    }
}

// Takes the names of people and computers out of paths and texts.
std::wstring WithoutNames(std::wstring text)
{
    for (const wchar_t* variable : {L"USERPROFILE", L"USERNAME", L"COMPUTERNAME", L"USERDOMAIN"})
    {
        wchar_t value[MAX_PATH] = {};
        const DWORD length = GetEnvironmentVariableW(variable, value, MAX_PATH);
        if (length >= 3 && length < MAX_PATH)  // shorter ones are part of ordinary words
        {
            Replace(text, value, std::wstring(L"<") + variable + L">");
        }
    }
    ReplaceMachineNumbers(text);
    return text;
}

std::string JsonText(const std::wstring& text)
{
    std::string bytes = "\"";
    for (const char c : Utf8(text))
    {
        if (c == '"' || c == '\\')
        {
            bytes += '\\';
            bytes += c;
        }
        else if (static_cast<unsigned char>(c) < 0x20)
        {
            constexpr char kDigits[] = "0123456789abcdef";
            bytes += "\\u00";
            bytes += kDigits[(c >> 4) & 15];
            bytes += kDigits[c & 15];
        }
        else
        {
            bytes += c;
        }
    }
    return bytes + "\"";
}

std::string Member(const char* name, const std::string& value, const char* end = ",")
{
    return "\"" + std::string(name) + "\": " + value + end;
}

std::wstring Padded(std::wstring text, size_t width)
{
    text.resize(std::max(text.size(), width), L' ');
    return text;
}
}  // namespace

int Count(const std::vector<Finding>& findings, Verdict verdict)
{
    return static_cast<int>(
        std::count_if(findings.begin(), findings.end(), [&](const Finding& f) { return f.verdict == verdict; }));
}

std::string Table(const std::vector<Finding>& findings)
{
    constexpr size_t kIdWidth = 34;
    constexpr size_t kTextWidth = 36;
    std::wstring text = Padded(L"fact", kIdWidth) + L" | " + Padded(L"expected", kTextWidth) + L" | " +
                        Padded(L"seen", kTextWidth) + L" | result\n";
    for (const Finding& finding : findings)
    {
        text += Padded(Widened(finding.fact->id), kIdWidth) + L" | " + Padded(Expected(*finding.fact), kTextWidth) +
                L" | " + Padded(finding.seen.applies ? WithoutNames(finding.seen.text) : L"-", kTextWidth) + L" | " +
                Widened(NameOf(finding.verdict)) + L"\n";
    }
    for (const Finding& finding : findings)
    {
        if (finding.verdict == Verdict::kOk)
        {
            continue;
        }
        text += L"\n" + Widened(finding.fact->id) + L": " + Widened(NameOf(finding.verdict)) + L"\n    " +
                finding.fact->says + L"\n";
        if (!finding.seen.applies)
        {
            text += L"    not looked at: " + WithoutNames(finding.seen.text) + L"\n";
            continue;
        }
        text +=
            L"    expected: " + Expected(*finding.fact) + L"\n    seen:     " + WithoutNames(finding.seen.text) + L"\n";
        if (!finding.seen.detail.empty())
        {
            text += L"    " + WithoutNames(finding.seen.detail) + L"\n";
        }
    }
    return Utf8(text);
}

std::string Json(const std::vector<Finding>& findings)
{
    const Machine& machine = ThisMachine();
    std::string json = "{\n  \"system\": {" + Member("windows", JsonText(machine.version)) + " " +
                       Member("wine", machine.wine.empty() ? "null" : JsonText(Widened(machine.wine))) + " " +
                       Member("elevated", machine.isElevated ? "true" : "false") + " " +
                       Member("session", std::to_string(machine.session)) + " " +
                       Member("interactive", machine.isInteractive ? "true" : "false") + " " +
                       Member("code_page", std::to_string(GetACP())) + " " +
                       Member("language", std::to_string(GetUserDefaultUILanguage()), "") + "},\n";
    json += "  \"counts\": {" + Member("ok", std::to_string(Count(findings, Verdict::kOk))) + " " +
            Member("differs", std::to_string(Count(findings, Verdict::kDiffers))) + " " +
            Member("not applicable", std::to_string(Count(findings, Verdict::kNotApplicable)), "") + "},\n";
    json += "  \"facts\": [";
    const char* separator = "\n";
    for (const Finding& finding : findings)
    {
        json += separator;
        json += "    {" + Member("id", JsonText(Widened(finding.fact->id))) + " " +
                Member("group", JsonText(Widened(finding.fact->group))) + "\n     " +
                Member("fact", JsonText(finding.fact->says)) + "\n     " +
                Member("expected", JsonText(Expected(*finding.fact))) + "\n     " +
                Member("seen", JsonText(WithoutNames(finding.seen.text))) + "\n     " +
                Member("detail", JsonText(WithoutNames(finding.seen.detail))) + "\n     " +
                Member("result", JsonText(Widened(NameOf(finding.verdict)))) + " " +
                Member("ms", std::to_string(finding.milliseconds), "}");
        separator = ",\n";
    }
    return json + "\n  ]\n}\n";
}
}  // namespace windows_check
