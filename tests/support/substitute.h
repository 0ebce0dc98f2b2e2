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

// The type of a system function carries attributes (import, calling convention) that a template argument drops.
#pragma GCC diagnostic ignored "-Wignored-attributes"

// IMPORTED(FUNCTION, ...) declares the import slots of functions, static or delay-loaded. At namespace scope, outside
// of all namespaces.
#define IMPORTED(...) __VA_OPT__(IMPORTED_EXPAND(IMPORTED_EACH(__VA_ARGS__)))
#define IMPORTED_EACH(function, ...)                               \
    extern "C" void* __imp_##function; /* the linker's own name */ \
    __VA_OPT__(IMPORTED_AGAIN IMPORTED_NONE(__VA_ARGS__))
#define IMPORTED_AGAIN() IMPORTED_EACH
#define IMPORTED_NONE ()
// Each expansion takes one more name; 25 are enough.
#define IMPORTED_EXPAND(...) IMPORTED_FIVE(IMPORTED_FIVE(IMPORTED_FIVE(IMPORTED_FIVE(IMPORTED_FIVE(__VA_ARGS__)))))
#define IMPORTED_FIVE(...) IMPORTED_ONE(IMPORTED_ONE(IMPORTED_ONE(IMPORTED_ONE(IMPORTED_ONE(__VA_ARGS__)))))
#define IMPORTED_ONE(...) __VA_ARGS__

#define SUBSTITUTE(function) repair::Substitute<&__imp_##function, decltype(function)>
#define RECORD(function) repair::Recorder<&__imp_##function, decltype(function)>

namespace repair
{
// Replaces a system function in this program's own import table, through which the product's library calls it too.
class ImportPatch
{
public:
    template <typename Function>
    ImportPatch(void** slot, Function* replacement) : slot_(slot), original_(*slot)
    {
        Write(reinterpret_cast<void*>(replacement));
    }
    ~ImportPatch() { Write(original_); }
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    // The function that was there before; correct only for statically imported DLLs.
    void* Original() const { return original_; }

private:
    void Write(void* value)
    {
        DWORD protection = 0;
        VirtualProtect(slot_, sizeof(*slot_), PAGE_READWRITE, &protection);
        *slot_ = value;
        VirtualProtect(slot_, sizeof(*slot_), protection, &protection);
    }

    void** slot_;
    void* original_;
};

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

    // Correct for statically imported functions only; use RealFunction for delay-loaded ones.
    static Function* Original() { return original_; }

private:
    static Result Call(Arguments... arguments) { return (*current_)(arguments...); }

    // Lives longer than the patch, because other threads may still be calling.
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
