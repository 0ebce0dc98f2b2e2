#include "record.h"

#include <iterator>
#include <map>
#include <mutex>
#include <regex>
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
    unsigned long left;  // lines with the word that must still come
    bool isExit;         // otherwise a crash
    unsigned long code;
};

std::vector<Rule> ReadRules()
{
    static const std::wregex kForm(LR"(winrt!(\S+)\s+([1-9]\d*)\s+(exit|crash)=(0x[\dA-Fa-f]+|\d+))");
    std::vector<Rule> rules;
    for (const standin::Line& line : standin::ReadLines(L"C:\\lab\\standins\\faults.txt"))
    {
        std::wsmatch parts;
        if (std::regex_match(line.text, parts, kForm))
        {
            rules.push_back({parts[1], std::stoul(parts[2]), parts[3] == L"exit", std::stoul(parts[4], nullptr, 0)});
        }
        else if (standin::StartsWith(line.text, L"winrt!"))
        {
            TheJournal().Append(L"!bad rule in line " + std::to_wstring(line.number));
        }
    }
    return rules;
}

std::vector<std::wstring> Words(const std::wstring& text)
{
    std::wistringstream stream(text);
    return {std::istream_iterator<std::wstring, wchar_t>(stream), std::istream_iterator<std::wstring, wchar_t>()};
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
            TerminateProcess(GetCurrentProcess(), rule.code);
        }
        standin::Crash(rule.code);
    }
}
}  // namespace

// Appends "<text> thread=<n>"; threads are numbered from 1 in the order of their first call.
void Record(const std::wstring& text)
{
    static std::vector<Rule>& rules = *new std::vector<Rule>(ReadRules());
    TheJournal().Append(text + L" thread=" + std::to_wstring(ThreadNumber()));
    FollowRules(rules, text);
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
