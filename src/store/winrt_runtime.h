// Calling the Windows Runtime: strings, object references, errors, activation.
#pragma once

#include <atomic>
#include <string>

#include <windows.h>

#include "base/owned.h"
#include "store/winrt_abi.h"

namespace repair
{
// A failed Windows Runtime call. It leaves this folder only through the operations that say so.
struct WinrtError
{
    HRESULT code = E_FAIL;
    std::wstring message;  // of the error object, or the system's text, or empty; no trailing blanks
};

// Throws WinrtError for the code of a failed call, with the text of the calling thread's error object, which it removes
// from the thread. Call it before any other call into COM. Throws std::bad_alloc for E_OUTOFMEMORY.
[[noreturn]] void ThrowWinrtError(HRESULT code);

// Removes the calling thread's error object. Not every object names its code, so one that is left over from an earlier
// failure would be taken for the description of the next one.
void DropErrorObject() noexcept;

// Throws like ThrowWinrtError for a failure that no call has reported, so that no error object describes it.
[[noreturn]] inline void ThrowOwnError(HRESULT code)
{
    DropErrorObject();
    ThrowWinrtError(code);
}

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

// Takes the [out] object of a call that returned `code`. Throws WinrtError for a failure, and with E_POINTER for a
// success without an object.
template <typename Interface>
Reference<Interface> TakeObject(HRESULT code, Interface* object)
{
    Reference<Interface> reference(object);
    CheckResult(code);
    if (!reference)
    {
        ThrowOwnError(E_POINTER);
    }
    return reference;
}

// Takes the object that `call` puts into its [out] parameter. Throws like TakeObject.
template <typename Interface, typename Call>
Reference<Interface> Receive(Call call)
{
    Interface* object = nullptr;
    const HRESULT code = call(&object);
    return TakeObject(code, object);
}

// Another interface of an object. Throws WinrtError if the object does not have it.
template <typename Interface>
Reference<Interface> QueryFor(::IUnknown* object)
{
    return Receive<Interface>(
        [&](auto** found) { return object->QueryInterface(Interface::kIid, reinterpret_cast<void**>(found)); });
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

// Returns the factory of a class as interface `iid`, with one reference for the caller. Creates the process's implicit
// multithreaded apartment for a thread without an apartment; blocking waits are allowed there. Throws WinrtError.
void* ActivateFactory(const wchar_t* className, const GUID& iid);

// The same, fetched once and kept in `cache` until the process ends. If threads race, one reference is kept.
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
