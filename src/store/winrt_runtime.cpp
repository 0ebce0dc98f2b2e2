#include "store/winrt_runtime.h"

#include <cwctype>
#include <new>

#include <windows.h>
#include <oaidl.h>

#include "base/handles.h"
#include "base/library.h"

namespace repair
{
namespace
{
constexpr wchar_t kAutomation[] = L"oleaut32.dll";
constexpr DWORD kUserLanguage = 0x0400;  // MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT)

HMODULE LoadSystemLibrary(const wchar_t* name)
{
    return LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

// Looked up at the first use, because most runs do not need it.
struct Combase
{
    Combase() : Combase(LoadSystemLibrary(L"combase.dll")) {}
    explicit Combase(HMODULE library)
        : getActivationFactory(LookUpFunction<decltype(getActivationFactory)>(library, "RoGetActivationFactory")),
          incrementMtaUsage(LookUpFunction<decltype(incrementMtaUsage)>(library, "CoIncrementMTAUsage")),
          createString(LookUpFunction<decltype(createString)>(library, "WindowsCreateString")),
          duplicateString(LookUpFunction<decltype(duplicateString)>(library, "WindowsDuplicateString")),
          deleteString(LookUpFunction<decltype(deleteString)>(library, "WindowsDeleteString")),
          stringBuffer(LookUpFunction<decltype(stringBuffer)>(library, "WindowsGetStringRawBuffer"))
    {
    }

    HRESULT(WINAPI* getActivationFactory)(abi::HString classId, const GUID& iid, void** factory);
    HRESULT(WINAPI* incrementMtaUsage)(void** cookie);
    HRESULT(WINAPI* createString)(const wchar_t* text, UINT32 length, abi::HString* string);
    HRESULT(WINAPI* duplicateString)(abi::HString string, abi::HString* copy);
    HRESULT(WINAPI* deleteString)(abi::HString string);
    const wchar_t*(WINAPI* stringBuffer)(abi::HString string, UINT32* length);
};

// Throws WinrtError if the system has no Windows Runtime.
const Combase& Runtime()
{
    static const Combase combase;
    if (combase.getActivationFactory == nullptr || combase.createString == nullptr ||
        combase.duplicateString == nullptr || combase.deleteString == nullptr || combase.stringBuffer == nullptr)
    {
        throw WinrtError{HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND), {}};
    }
    return combase;
}

struct Automation
{
    Automation() : Automation(LoadSystemLibrary(kAutomation)) {}
    explicit Automation(HMODULE library)
        : getErrorInfo(LookUpFunction<decltype(getErrorInfo)>(library, "GetErrorInfo")),
          freeString(LookUpFunction<decltype(freeString)>(library, "SysFreeString")),
          stringLength(LookUpFunction<decltype(stringLength)>(library, "SysStringLen"))
    {
    }

    HRESULT(WINAPI* getErrorInfo)(ULONG reserved, IErrorInfo** information);
    void(WINAPI* freeString)(BSTR text);
    UINT(WINAPI* stringLength)(BSTR text);
};

const Automation& AutomationLibrary()
{
    static const Automation automation;
    return automation;
}

struct BasicStringKind
{
    using Handle = BSTR;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle text) noexcept { AutomationLibrary().freeString(text); }
};
using BasicString = Owned<BasicStringKind>;

std::wstring ToWide(const BasicString& text)
{
    return text ? std::wstring(text.Get(), AutomationLibrary().stringLength(text.Get())) : std::wstring();
}

std::wstring WithoutTrailingBlanks(std::wstring text)
{
    while (!text.empty() && std::iswspace(text.back()) != 0)
    {
        text.pop_back();
    }
    return text;
}

// Not FormatSystemMessage: this text keeps its inner line breaks and is in the user's language.
std::wstring SystemText(HRESULT code)
{
    wchar_t* text = nullptr;
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
                       nullptr, static_cast<DWORD>(code), kUserLanguage, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    const LocalMemory owner(text);
    return text == nullptr ? std::wstring() : WithoutTrailingBlanks(std::wstring(text, length));
}

// Takes the thread's error object; null if there is none.
Reference<IErrorInfo> TakeErrorObject()
{
    IErrorInfo* information = nullptr;
    const bool isThere =
        AutomationLibrary().getErrorInfo != nullptr && AutomationLibrary().getErrorInfo(0, &information) == S_OK;
    return isThere ? Reference<IErrorInfo>(information) : Reference<IErrorInfo>();
}

// Sets `message` from the thread's error object. Returns false if there is none or it describes another failure.
bool DescribeByErrorObject(HRESULT code, std::wstring& message)
{
    const Reference<IErrorInfo> owner = TakeErrorObject();
    if (!owner)
    {
        return false;
    }
    IErrorInfo* const information = owner.Get();
    void* found = nullptr;
    if (FAILED(information->QueryInterface(abi::IRestrictedErrorInfo::kIid, &found)) || found == nullptr)
    {
        BSTR text = nullptr;
        const HRESULT result = information->GetDescription(&text);
        const BasicString description(text);
        message = WithoutTrailingBlanks(ToWide(description));
        return SUCCEEDED(result) && !message.empty();
    }

    const Reference<abi::IRestrictedErrorInfo> restricted(static_cast<abi::IRestrictedErrorInfo*>(found));
    BSTR texts[3] = {};
    HRESULT describedCode = S_OK;
    const HRESULT result = restricted.Get()->GetErrorDetails(&texts[0], &describedCode, &texts[1], &texts[2]);
    const BasicString description(texts[0]);
    const BasicString restrictedDescription(texts[1]);
    const BasicString capabilitySid(texts[2]);
    if (result != S_OK || describedCode != code)
    {
        return false;
    }
    message = WithoutTrailingBlanks(ToWide(restrictedDescription ? restrictedDescription : description));
    return true;
}
}  // namespace

void ThrowWinrtError(HRESULT code)
{
    std::wstring message;
    if (!DescribeByErrorObject(code, message))
    {
        message = SystemText(code);
    }
    if (code == E_OUTOFMEMORY)
    {
        throw std::bad_alloc();
    }
    throw WinrtError{code, message};
}

void DropErrorObject() noexcept
{
    if (GetModuleHandleW(kAutomation) != nullptr)  // without the library, no code has left an object
    {
        TakeErrorObject();
    }
}

void HStringKind::Close(Handle text) noexcept
{
    Runtime().deleteString(text);  // does not throw: a string exists, so the runtime does
}

HStringOwner MakeHString(const std::wstring& text)
{
    abi::HString string = nullptr;
    CheckResult(Runtime().createString(text.c_str(), static_cast<UINT32>(text.size()), &string));
    return HStringOwner(string);
}

std::wstring ToWide(abi::HString text)
{
    UINT32 length = 0;
    const wchar_t* const buffer = Runtime().stringBuffer(text, &length);
    return std::wstring(buffer, length);
}

abi::HString DuplicateHString(abi::HString text)
{
    abi::HString copy = nullptr;
    CheckResult(Runtime().duplicateString(text, &copy));
    return copy;
}

void* ActivateFactory(const wchar_t* className, const GUID& iid)
{
    const HStringOwner name = MakeHString(className);
    void* factory = nullptr;
    HRESULT code = Runtime().getActivationFactory(name.Get(), iid, &factory);
    if (code == CO_E_NOTINITIALIZED && Runtime().incrementMtaUsage != nullptr)
    {
        DropErrorObject();       // of the first activation
        void* cookie = nullptr;  // never released: the apartment lasts as long as the process
        Runtime().incrementMtaUsage(&cookie);
        factory = nullptr;
        code = Runtime().getActivationFactory(name.Get(), iid, &factory);
    }
    return TakeObject(code, static_cast<::IUnknown*>(factory)).Release();
}
}  // namespace repair
