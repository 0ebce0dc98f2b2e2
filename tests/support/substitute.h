// System functions replaced by a lambda or recorded, for as long as the object lives.
//     IMPORTED(RegCloseKey, RegOpenKeyExW)
//     SUBSTITUTE(RegOpenKeyExW) open([](auto...) { return ERROR_ACCESS_DENIED; });
//     const RECORD(RegCloseKey) closed;
//     EXPECT_THAT(closed.Calls(), ElementsAre(std::tuple(key)));
#pragma once

#include <windows.h>

#include <functional>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/import_patch.h"

// The type of a system function carries attributes (import, calling convention) that a template argument drops.
#pragma GCC diagnostic ignored "-Wignored-attributes"

#define SUBSTITUTE(function) repair::Substitute<&__imp_##function, decltype(function)>
#define RECORD(function) repair::Recorder<&__imp_##function, decltype(function)>

namespace repair
{
// A later substitute of the same function comes before an earlier one, until it ends.
template <void** slot, typename Signature>
class Substitute;

template <void** slot, typename Result, typename... Arguments>
class Substitute<slot, Result(Arguments...)>
{
public:
    using Function = Result(Arguments...);

    template <typename Body>
    explicit Substitute(Body body) : body_(std::move(body)), activation_(body_), patch_(slot, &Call)
    {
        if (original_ == nullptr)
        {
            original_ = reinterpret_cast<Function*>(patch_.Original());
        }
    }

    // Right for statically imported functions only; RealFunction serves delay-loaded ones.
    static Function* Original() { return original_; }

private:
    static Result Call(Arguments... arguments) { return (*current_)(arguments...); }

    // Begins before the patch and ends after it: other threads may be calling.
    class Activation
    {
    public:
        explicit Activation(const std::function<Function>& body) : previous_(current_) { current_ = &body; }
        ~Activation() { current_ = previous_; }
        Activation(const Activation&) = delete;
        Activation& operator=(const Activation&) = delete;

    private:
        const std::function<Function>* previous_;
    };

    inline static const std::function<Function>* current_ = nullptr;
    inline static Function* original_ = nullptr;
    std::function<Function> body_;
    Activation activation_;
    ImportPatch patch_;
};

// A list that several threads may use.
template <typename Value>
class SharedList
{
public:
    void Add(Value value)
    {
        const std::lock_guard lock(mutex_);
        values_.push_back(std::move(value));
    }
    std::vector<Value> Get() const
    {
        const std::lock_guard lock(mutex_);
        return values_;
    }
    void Clear()
    {
        const std::lock_guard lock(mutex_);
        values_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<Value> values_;
};

// What a recorder keeps of an argument: the characters of a text, because the text may be gone later.
template <typename Value>
Value Kept(Value value)
{
    return value;
}
inline std::wstring Kept(const wchar_t* text)
{
    return text == nullptr ? L"null" : IS_INTRESOURCE(text) ? L"number" : text;
}

// The arguments of each call of a statically imported function. The calls go through.
template <void** slot, typename Signature>
class Recorder;

template <void** slot, typename Result, typename... Arguments>
class Recorder<slot, Result(Arguments...)>
{
public:
    using Call = std::tuple<decltype(Kept(std::declval<Arguments>()))...>;

    std::vector<Call> Calls() const { return calls_.Get(); }
    void Forget() { calls_.Clear(); }

private:
    SharedList<Call> calls_;
    Substitute<slot, Result(Arguments...)> substitute_{[this](Arguments... arguments) {
        calls_.Add(Call(Kept(arguments)...));
        return substitute_.Original()(arguments...);
    }};
};

// A delay-loaded function as its DLL exports it, bypassing every substitute.
template <typename Function>
Function* RealFunction(const wchar_t* dll, const char* name)
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(dll), name)));
}

// What a system function does when it fails.
template <typename Result>
Result FailWith(DWORD code, Result result)
{
    SetLastError(code);
    return result;
}
inline BOOL FailWith(DWORD code)
{
    return FailWith(code, FALSE);
}
}  // namespace repair
