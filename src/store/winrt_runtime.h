// Calling the Windows Runtime: strings, object references, errors, activation.
#pragma once

#include <atomic>
#include <string>

#include <windows.h>

#include "base/owned.h"
#include "store/winrt_abi.h"

namespace repair
{
// A Windows Runtime call failed. Thrown by value; it leaves this folder only through the operations that say so.
struct WinrtError
{
    HRESULT code = E_FAIL;
    std::wstring message;  // the error object's description, else the system's text, else empty; no trailing blanks
};

// Throws WinrtError for a failure code, with the text that the calling thread's error object has for it; the object is
// taken off the thread. Must be called before any other call into COM. An exhausted memory (E_OUTOFMEMORY) is thrown as
// std::bad_alloc.
[[noreturn]] void ThrowWinrtError(HRESULT code);

inline void CheckResult(HRESULT code)
{
    if (FAILED(code))
    {
        ThrowWinrtError(code);
    }
}

// One reference to an object.
template <typename Interface>
struct ReferenceKind
{
    using Handle = Interface*;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle object) noexcept { object->Release(); }
};
template <typename Interface>
using Reference = Owned<ReferenceKind<Interface>>;

// Takes the [out] object of a call that came back with `code`. Throws WinrtError for a failure, and with E_POINTER for
// a success without an object.
template <typename Interface>
Reference<Interface> TakeObject(HRESULT code, Interface* object)
{
    Reference<Interface> reference(object);
    CheckResult(code);
    if (!reference)
    {
        ThrowWinrtError(E_POINTER);
    }
    return reference;
}

// Another interface of an object; throws WinrtError when the object does not have it.
template <typename Interface>
Reference<Interface> QueryFor(::IUnknown* object)
{
    void* found = nullptr;
    const HRESULT code = object->QueryInterface(Interface::kIid, &found);
    return TakeObject(code, static_cast<Interface*>(found));
}

struct HStringKind
{
    using Handle = abi::HString;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle text) noexcept;
};
using HStringOwner = Owned<HStringKind>;

HStringOwner MakeHString(const std::wstring& text);  // throws WinrtError
std::wstring ToWide(abi::HString text);              // null gives an empty text
abi::HString DuplicateHString(abi::HString text);    // the receiver owns it; throws WinrtError

// The factory of a class as interface `iid`, one reference for the caller. A thread without an apartment is
// made part of the process's implicit multithreaded apartment, in which blocking waits are allowed. Throws WinrtError.
void* ActivateFactory(const wchar_t* className, const GUID& iid);

// The same, fetched once and kept in `cache` until the process ends. Threads may race: one reference wins.
template <typename Factory>
Factory* CachedFactory(std::atomic<Factory*>& cache, const wchar_t* className)
{
    Factory* factory = cache.load();
    if (factory == nullptr)
    {
        Reference<Factory> fresh(static_cast<Factory*>(ActivateFactory(className, Factory::kIid)));
        if (cache.compare_exchange_strong(factory, fresh.Get()))
        {
            factory = fresh.Release();
        }
    }
    return factory;
}
}  // namespace repair
