#include "fault_rules.h"

#include <algorithm>

#include "fault.h"
#include "lab_file.h"

namespace standin
{
namespace
{
// Takes the next word; blanks inside double quotes belong to it, and there \" is a quote.
std::wstring TakeWord(std::wstring& rest)
{
    bool isQuoted = false;
    std::size_t end = 0;
    for (; end < rest.size() && (isQuoted || (rest[end] != L' ' && rest[end] != L'\t')); ++end)
    {
        if (isQuoted && rest[end] == L'\\')
        {
            ++end;
        }
        else if (rest[end] == L'"')
        {
            isQuoted = !isQuoted;
        }
    }
    std::wstring word = rest.substr(0, end);
    rest = Trim(std::wstring_view(rest).substr(end));
    return word;
}

std::wstring WithoutQuotes(const std::wstring& value)
{
    if (value.size() < 2 || value.front() != L'"' || value.back() != L'"')
    {
        return value;
    }
    return Unescape(std::wstring_view(value).substr(1, value.size() - 2));
}

bool ParseWhen(std::wstring when, Rule& rule)
{
    if (when == L"*")
    {
        return true;
    }
    rule.isOpenEnded = !when.empty() && when.back() == L'+';
    if (rule.isOpenEnded)
    {
        when.pop_back();
    }
    unsigned long long first = 0;
    if (!ParseNumber(when, first) || first == 0)
    {
        return false;
    }
    rule.first = static_cast<unsigned>(first);
    return true;
}

bool Contains(const std::vector<std::wstring>& list, const std::wstring& text)
{
    return std::find(list.begin(), list.end(), text) != list.end();
}

bool ParseAction(const std::wstring& key, const std::wstring& value, Rule& rule, std::wstring& fault)
{
    if (key == L"if")
    {
        const std::size_t mark = value.find_first_of(L":~");
        if (mark == std::wstring::npos)
        {
            fault = L"a condition is if=<argument>:<text> or if=<argument>~<part of it>";
        }
        else
        {
            rule.conditions.push_back(
                {value.substr(0, mark), Lower(WithoutQuotes(value.substr(mark + 1))), value[mark] == L'~'});
        }
        return fault.empty();
    }
    unsigned long long number = 0;
    if (Contains({L"error", L"return", L"gle", L"after", L"sleep", L"exit", L"crash"}, key))
    {
        if (!ParseNumber(value, number))
        {
            fault = L"not a number: " + value;
        }
    }
    else if (key == L"memory")
    {
        if (value != L"none")
        {
            fault = L"memory can only be none";
        }
    }
    else if (!Contains(kSpecialKeys, rule.function + L" " + key))
    {
        fault = L"unknown key: " + key;
    }
    if (fault.empty() && !rule.actions.emplace(key, WithoutQuotes(value)).second)
    {
        fault = L"given twice: " + key;
    }
    return fault.empty();
}
}  // namespace

bool Rule::ConcernsCall(const std::vector<std::pair<std::wstring, std::wstring>>& arguments) const
{
    return std::all_of(conditions.begin(), conditions.end(), [&](const Condition& condition) {
        return std::any_of(arguments.begin(), arguments.end(), [&](const auto& argument) {
            if (argument.first != condition.key)
            {
                return false;
            }
            std::wstring value = Lower(argument.second);
            if (value.size() >= 2 && value.front() == L'"')
            {
                value = value.substr(1, value.size() - 2);
            }
            return condition.isContained ? value.find(condition.text) != value.npos : value == condition.text;
        });
    });
}

bool ParseRule(const std::wstring& line, Rule& rule, std::wstring& fault)
{
    std::wstring rest = line;
    const std::wstring target = TakeWord(rest);
    const std::size_t mark = target.find(L'!');
    if (mark == std::wstring::npos)
    {
        fault = L"a rule begins with <dll>!<Function>";
        return false;
    }
    if (target.substr(0, mark) != kLibrary)
    {
        return false;
    }
    rule.function = target.substr(mark + 1);
    if (!Contains(kIntercepted, rule.function))
    {
        fault = L"function is not intercepted: " + rule.function;
    }
    else if (!ParseWhen(TakeWord(rest), rule))
    {
        fault = L"which call? <number>, <number>+ or *";
    }
    else if (rest.empty())
    {
        fault = L"nothing to do";
    }
    while (fault.empty() && !rest.empty())
    {
        const std::wstring word = TakeWord(rest);
        const std::size_t equal = word.find(L'=');
        if (equal == std::wstring::npos)
        {
            fault = L"not key=value: " + word;
        }
        else
        {
            ParseAction(word.substr(0, equal), word.substr(equal + 1), rule, fault);
        }
    }
    return fault.empty();
}
}  // namespace standin
