// Windows Runtime objects as the tool gets them, for the checks of packages and of the Store.
#pragma once

#include <string>

#include "store/winrt_runtime.h"
#include "windows_check/words.h"

namespace windows_check
{
// The class name that an object gives itself.
std::wstring ClassOf(repair::abi::IInspectable* object);

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
