// A system function replaced by a lambda, for as long as the object lives.
//     IMPORTED(RegCloseKey)
//     SUBSTITUTE(RegCloseKey) close([&](HKEY key) { ++closed; return close.Original()(key); });
#pragma once

#include <windows.h>

#include <functional>
#include <utility>

#include "support/import_patch.h"

// The type of a system function carries attributes (import, calling convention) that a template argument drops.
#pragma GCC diagnostic ignored "-Wignored-attributes"

#define SUBSTITUTE(function) repair::Substitute<&__imp_##function, decltype(function)>

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

// A delay-loaded function as its DLL exports it, past every substitute.
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
