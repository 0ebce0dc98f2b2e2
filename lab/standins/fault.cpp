#include "fault.h"

#include <cstring>
#include <map>
#include <mutex>

#include "fault_rules.h"
#include "lab_file.h"
#include "process_fault.h"

namespace standin
{
namespace
{
constexpr const wchar_t* kRulesPath = L"C:\\lab\\standins\\faults.txt";
constexpr const wchar_t* kCallsPath = L"C:\\lab\\standins\\calls.txt";

struct State
{
    std::mutex mutex;
    Journal calls{kCallsPath};
    std::vector<Rule> rules;
    std::map<std::wstring, unsigned> counts;
};

// Read at the first call, because a loading DLL must not open files. Never destroyed: other DLLs may still call while
// the process ends.
State& TheState()
{
    static State& state = []() -> State& {
        State& fresh = *new State;
        for (const Line& line : ReadLines(kRulesPath))
        {
            Rule rule;
            std::wstring fault;
            if (ParseRule(line.text, rule, fault))
            {
                fresh.rules.push_back(std::move(rule));
            }
            else if (!fault.empty())  // otherwise a case could pass for the wrong reason
            {
                fresh.calls.Append(L"!bad rule in line " + std::to_wstring(line.number) + L": " + fault);
            }
        }
        return fresh;
    }();
    return state;
}
}  // namespace

void* FindReal(const char* function)
{
    static const HMODULE library = LoadLibraryW((kLibrary + L"_lab.dll").c_str());
    void* const found = reinterpret_cast<void*>(GetProcAddress(library, function));
    if (found == nullptr)
    {
        TheState().calls.Append(L"!no such function: " + kLibrary + L"_lab.dll " +
                                std::wstring(function, function + std::strlen(function)));
        TerminateProcess(GetCurrentProcess(), ERROR_PROC_NOT_FOUND);
    }
    return found;
}

Call::Call(const wchar_t* function) : entryError_(GetLastError()), lastError_(entryError_), function_(function)
{
    State& state = TheState();
    const std::scoped_lock lock(state.mutex);
    number_ = ++state.counts[function_];
}

Call::~Call()
{
    WriteRecord();
    SetLastError(lastError_);
}

Call& Call::Raw(const wchar_t* key, const std::wstring& value)
{
    details_.emplace_back(key, value);
    return *this;
}

Call& Call::Text(const wchar_t* key, const wchar_t* value)
{
    return Raw(key, Quoted(value));
}

Call& Call::Number(const wchar_t* key, long long value)
{
    return Raw(key, std::to_wstring(value));
}

Call& Call::Flags(const wchar_t* key, unsigned long long value)
{
    return Raw(key, Hex(value));
}

std::optional<std::wstring> Call::Given(const wchar_t* key) const
{
    if (rule_ == nullptr)
    {
        return std::nullopt;
    }
    const auto found = rule_->actions.find(key);
    return found == rule_->actions.end() ? std::nullopt : std::optional(found->second);
}

std::optional<unsigned long long> Call::GivenNumber(const wchar_t* key) const
{
    const std::optional<std::wstring> text = Given(key);
    unsigned long long number = 0;
    return text && ParseNumber(*text, number) ? std::optional(number) : std::nullopt;
}

void Call::Decide()
{
    if (isDecided_)
    {
        return;
    }
    isDecided_ = true;
    {
        State& state = TheState();
        const std::scoped_lock lock(state.mutex);
        for (Rule& rule : state.rules)
        {
            if (rule.function != function_ || !rule.ConcernsCall(details_))
            {
                continue;
            }
            ++rule.matches;
            if (rule.IsDue())
            {
                rule_ = &rule;  // the last one wins
            }
        }
    }
    if (const auto wait = GivenNumber(L"sleep"))
    {
        Sleep(static_cast<DWORD>(*wait));
    }
    if (const auto code = GivenNumber(L"exit"))
    {
        result_ = L"exit " + std::to_wstring(*code);
        WriteRecord();
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(*code));
    }
    if (const auto code = GivenNumber(L"crash"))
    {
        result_ = L"crash " + Hex(*code);
        WriteRecord();
        Crash(static_cast<DWORD>(*code));
    }
    if (Given(L"memory"))
    {
        RefuseMemory();
    }
}

bool Call::PlannedError(const wchar_t* key, Failure failure, unsigned long long& value)
{
    const auto error = GivenNumber(key);
    if (!error)
    {
        return false;
    }
    lastError_ = static_cast<DWORD>(*error);
    value = failure == Failure::Code ? *error : failure == Failure::InvalidHandle ? ~0ULL : 0;
    return true;
}

bool Call::PlannedResult(Failure failure, unsigned long long& value)
{
    const auto returned = GivenNumber(L"return");
    if (!returned)
    {
        return PlannedError(L"error", failure, value);
    }
    value = *returned;
    lastError_ = static_cast<DWORD>(GivenNumber(L"gle").value_or(0));
    return true;
}

void Call::RecordHandle(unsigned long long handle)
{
    result_ = handle == ~0ULL ? L"invalid" : Hex(handle);
}

void Call::WriteRecord() const
{
    std::wstring line = kLibrary + L"!" + function_ + L"#" + std::to_wstring(number_);
    for (std::size_t i = 0; i < details_.size(); ++i)
    {
        line += (i == 0 ? L" " : L"; ") + details_[i].first + L"=" + details_[i].second;
    }
    TheState().calls.Append(line + L" -> " + result_ + L" gle=" + std::to_wstring(lastError_));
}
}  // namespace standin
