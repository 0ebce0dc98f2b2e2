#include "record.h"

#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <vector>

#include "abi.h"
#include "lab_file.h"
#include "process_fault.h"

namespace lab
{
namespace
{
constexpr const wchar_t* kRecordPath = L"C:\\lab\\standins\\winrt-calls.txt";

standin::Journal& TheJournal()
{
    static standin::Journal& journal = *new standin::Journal(kRecordPath);
    return journal;
}

std::size_t ThreadNumber()
{
    static std::mutex mutex;
    static std::map<DWORD, std::size_t> numbers;
    const std::scoped_lock lock(mutex);
    return numbers.try_emplace(GetCurrentThreadId(), numbers.size() + 1).first->second;
}

struct Rule
{
    std::wstring word;
    unsigned long long left = 0;  // lines with the word until it is due
    bool isExit = false;          // otherwise a crash
    unsigned long long code = 0;
};

std::vector<std::wstring> Words(const std::wstring& text)
{
    std::wistringstream stream(text);
    return {std::istream_iterator<std::wstring, wchar_t>(stream), std::istream_iterator<std::wstring, wchar_t>()};
}

// "<word> <n> exit=<code>" or "... crash=<code>".
bool ParseRule(const std::wstring& text, Rule& rule)
{
    const std::vector<std::wstring> words = Words(text);
    if (words.size() != 3)
    {
        return false;
    }
    const std::size_t equal = words[2].find(L'=');
    const std::wstring what = words[2].substr(0, equal);
    rule.word = words[0];
    rule.isExit = what == L"exit";
    return (what == L"exit" || what == L"crash") && equal != std::wstring::npos &&
           standin::ParseNumber(words[1], rule.left) && rule.left > 0 &&
           standin::ParseNumber(words[2].substr(equal + 1), rule.code);
}

std::vector<Rule> ReadRules()
{
    std::vector<Rule> rules;
    for (const standin::Line& line : standin::ReadLines(L"C:\\lab\\standins\\faults.txt"))
    {
        Rule rule;
        if (!standin::StartsWith(line.text, L"winrt!"))
        {
            continue;
        }
        if (ParseRule(line.text.substr(6), rule))
        {
            rules.push_back(rule);
        }
        else
        {
            TheJournal().Append(L"!bad rule in line " + std::to_wstring(line.number));
        }
    }
    return rules;
}

void FollowRules(std::vector<Rule>& rules, const std::wstring& text)
{
    static std::mutex mutex;
    if (rules.empty())
    {
        return;
    }
    const std::scoped_lock lock(mutex);
    const std::vector<std::wstring> words = Words(text);
    for (Rule& rule : rules)
    {
        const bool hasWord = (!words.empty() && words[0] == rule.word) || (words.size() > 1 && words[1] == rule.word);
        if (!hasWord || --rule.left != 0)
        {
            continue;
        }
        if (rule.isExit)
        {
            TerminateProcess(GetCurrentProcess(), static_cast<UINT>(rule.code));
        }
        standin::Crash(static_cast<DWORD>(rule.code));
    }
}
}  // namespace

void Record(const std::wstring& text)
{
    static std::vector<Rule>& rules = *new std::vector<Rule>(ReadRules());
    TheJournal().Append(text + L" thread=" + std::to_wstring(ThreadNumber()));
    FollowRules(rules, text);
}

HRESULT Record(const std::wstring& text, HRESULT result)
{
    Record(text + L" -> " + standin::Hex(static_cast<ULONG>(result)));
    return result;
}

void RecordAtEnd(const std::wstring& text)
{
    TheJournal().Append(text);
}
}  // namespace lab

HRESULT winrt_abi::UnusedSlot(const wchar_t* interfaceName, const wchar_t* method)
{
    return lab::Record(L"unused slot " + std::wstring(interfaceName) + L"." + method, E_NOTIMPL);
}
