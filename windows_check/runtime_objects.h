// Windows Runtime objects, for the checks of packages and of the Store. They use the lab's declaration, which is
// independent of the tool's; tests/store/winrt_abi_test.cpp compares the two.
#pragma once

#include <windows.h>

#include <string>

#include "lab/standins/winrt/abi.h"
#include "store/winrt_runtime.h"
#include "windows_check/words.h"

namespace windows_check
{
using repair::Reference;

// The object that a call puts where it is told. Throws repair::WinrtError if the call fails or gives none.
template <typename Interface, typename Call>
Reference<Interface> Given(Call call)
{
    Interface* found = nullptr;
    const HRESULT code = call(&found);
    return repair::TakeObject(code, found);
}

template <typename Object, typename Interface>
Reference<Interface> Get(Object* object, HRESULT (STDMETHODCALLTYPE Object::*method)(Interface**))
{
    return Given<Interface>([&](Interface** found) { return (object->*method)(found); });
}

template <typename Interface>
Reference<Interface> Activated(const wchar_t* className)
{
    return Reference<Interface>(static_cast<Interface*>(repair::ActivateFactory(className, Interface::kIid)));
}

// The string that a method gave. Throws repair::WinrtError if it failed.
inline std::wstring Taken(HRESULT code, HSTRING string)
{
    const repair::HStringOwner owner(reinterpret_cast<repair::abi::HString>(string));
    repair::CheckResult(code);
    return repair::ToWide(owner.Get());
}

// The class name that an object gives itself.
inline std::wstring ClassOf(winrt_abi::IInspectable* object)
{
    HSTRING name = nullptr;
    const HRESULT code = object->GetRuntimeClassName(&name);
    return Taken(code, name);
}

// "yes", or the code of the refusal.
template <typename Interface>
std::wstring Answers(::IUnknown* object)
{
    void* found = nullptr;
    const HRESULT code = object->QueryInterface(Interface::kIid, &found);
    if (FAILED(code))
    {
        return ResultOf(code);
    }
    static_cast<::IUnknown*>(found)->Release();
    return L"yes";
}
}  // namespace windows_check
