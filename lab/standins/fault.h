// Steps of every intercepted call: count it, find a fault rule, forward it or not, record it.
#pragma once
#include <windows.h>

#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace standin
{
// Generated for each stand-in by forwarders.py: the DLL it takes the place of and the functions it defines itself.
extern const std::wstring kLibrary;
extern const std::vector<std::wstring> kIntercepted;

// Keys that only some functions of this stand-in understand in a rule, each as "Function key".
extern const std::vector<std::wstring> kSpecialKeys;

// The function of this name in the real DLL. Ends the process if there is none.
void* FindReal(const char* function);

// How a function tells its caller that it failed.
enum class Failure
{
    Zero,           // FALSE or NULL
    InvalidHandle,  // INVALID_HANDLE_VALUE
    Code            // the error code itself is the result
};

struct Rule;

// One call in progress. Arguments are added first, then Run decides, then results may be added. The destructor writes
// the line and sets the last error.
class Call
{
public:
    explicit Call(const wchar_t* function);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    Call& Text(const wchar_t* key, const wchar_t* value);
    Call& Number(const wchar_t* key, long long value);
    Call& Flags(const wchar_t* key, unsigned long long value);
    Call& Raw(const wchar_t* key, const std::wstring& value);

    // The value of a key in the matching rule; nothing without a rule. Only after Decide or Run.
    std::optional<std::wstring> Given(const wchar_t* key) const;
    std::optional<unsigned long long> GivenNumber(const wchar_t* key) const;

    // Looks for the rule, sleeps or ends the process if it says so. Run calls it; a function with keys of its own calls
    // it earlier.
    void Decide();

    // Whether the real function was called.
    bool WasForwarded() const { return wasForwarded_; }

    template <class Result, class Forward>
    Result Run(Failure failure, Forward forward)
    {
        Decide();
        unsigned long long planned = 0;
        if (PlannedResult(failure, planned))
        {
            return Record(Make<Result>(planned));
        }
        SetLastError(entryError_);
        Result result = forward();
        lastError_ = GetLastError();
        wasForwarded_ = true;
        if (PlannedError(L"after", failure, planned))
        {
            result = Make<Result>(planned);
        }
        return Record(result);
    }

    // real: REAL(name). It is looked up inside Run, because the search changes the last error.
    template <class Real, class... Arguments>
    auto Forward(Failure failure, Real real, Arguments... arguments)
    {
        return Run<decltype(real()(arguments...))>(failure, [&] { return real()(arguments...); });
    }

    // A function without a result is recorded as 0.
    template <class Real, class Argument>
    void ForwardVoid(Real real, Argument argument)
    {
        Run<int>(Failure::Zero, [&] { return real()(argument), 0; });
    }

    // Records a result of the stand-in's own.
    template <class Result>
    Result Answer(Result result, DWORD lastError)
    {
        lastError_ = lastError;
        return Record(result);
    }

private:
    template <class Result>
    static Result Make(unsigned long long value)
    {
        if constexpr (std::is_pointer_v<Result>)
        {
            return reinterpret_cast<Result>(value);
        }
        else
        {
            return static_cast<Result>(value);
        }
    }

    template <class Result>
    Result Record(Result result)
    {
        if constexpr (std::is_pointer_v<Result>)
        {
            RecordHandle(reinterpret_cast<unsigned long long>(result));
        }
        else
        {
            result_ = std::to_wstring(result);
        }
        return result;
    }

    void RecordHandle(unsigned long long handle);
    bool PlannedResult(Failure failure, unsigned long long& value);
    bool PlannedError(const wchar_t* key, Failure failure, unsigned long long& value);
    void WriteRecord() const;

    DWORD entryError_;
    DWORD lastError_;
    std::wstring function_;
    unsigned number_;
    std::vector<std::pair<std::wstring, std::wstring>> details_;
    std::wstring result_;
    const Rule* rule_ = nullptr;
    bool isDecided_ = false;
    bool wasForwarded_ = false;
};
}  // namespace standin

// Finds the real function behind an intercepted one, typed as the system header declares it.
#define REAL(name) ([] { return reinterpret_cast<decltype(&::name)>(standin::FindReal(#name)); })
