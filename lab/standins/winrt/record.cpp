#include "record.h"

#include <map>
#include <mutex>
#include <vector>

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
    unsigned long long left;  // lines with the word until it is due
    std::wstring what;        // exit or crash
    unsigned long long code;
};

std::vector<std::wstring> Words(std::wstring text)
{
    std::vector<std::wstring> words;
    while (!(text = standin::Trim(text)).empty())
    {
        const std::size_t end = text.find(L' ');
        words.push_back(text.substr(0, end));
        text.erase(0, words.back().size());
    }
    return words;
}

std::vector<Rule> ReadRules()
{
    std::vector<Rule> rules;
    for (const standin::Line& line : standin::ReadLines(L"C:\\lab\\standins\\faults.txt"))
    {
        if (!standin::StartsWith(line.text, L"winrt!"))
            continue;
        const std::vector<std::wstring> words = Words(line.text.substr(6));
        Rule rule;
        const std::size_t equal = words.size() == 3 ? words[2].find(L'=') : std::wstring::npos;
        if (equal != std::wstring::npos)
            rule.what = words[2].substr(0, equal);
        if ((rule.what == L"exit" || rule.what == L"crash") && standin::ParseNumber(words[1], rule.left) &&
            rule.left > 0 && standin::ParseNumber(words[2].substr(equal + 1), rule.code))
        {
            rule.word = words[0];
            rules.push_back(rule);
        }
        else
            TheJournal().Append(L"!bad rule in line " + std::to_wstring(line.number));
    }
    return rules;
}

void FollowRules(std::vector<Rule>& rules, const std::wstring& text)
{
    static std::mutex mutex;
    if (rules.empty())
        return;
    const std::scoped_lock lock(mutex);
    const std::vector<std::wstring> words = Words(text);
    for (Rule& rule : rules)
        for (std::size_t i = 0; i < words.size() && i < 2; ++i)
            if (words[i] == rule.word && --rule.left == 0)
            {
                if (rule.what == L"exit")
                    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(rule.code));
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
    Record(text + L" -> " + HresultText(result));
    return result;
}

void RecordAtEnd(const std::wstring& text)
{
    TheJournal().Append(text);
}

HRESULT UnusedSlot(const wchar_t* interfaceName, const wchar_t* method)
{
    return Record(L"unused slot " + std::wstring(interfaceName) + L"." + method, E_NOTIMPL);
}

std::wstring HresultText(HRESULT result)
{
    return standin::Hex(static_cast<ULONG>(result));
}
}  // namespace lab
