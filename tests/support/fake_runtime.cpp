#include "support/fake_runtime.h"

#include <windows.h>

#include <oleauto.h>

#include <gtest/gtest.h>

#include <atomic>

namespace repair
{
namespace
{
FakeRuntime* current = nullptr;
std::vector<std::wstring> heldAtEnd;
std::atomic<int> liveStrings = 0;
std::atomic<int> liveBasicStrings = 0;

using LookUp = FARPROC WINAPI(HMODULE, const char*);
LookUp* realLookUp = nullptr;  // set by the first FakeRuntime

template <typename Function>
Function* Real(const wchar_t* dll, const char* name)
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(realLookUp(LoadLibraryW(dll), name)));
}

HRESULT FailureOf(const char* function)
{
    const auto found = current->failingFunctions.find(function);
    return found == current->failingFunctions.end() ? S_OK : found->second;
}

// --- Strings, counted so that a leak shows. The component makes some, the product others.
HRESULT WINAPI CreateStringShim(const wchar_t* text, UINT32 length, HSTRING* string)
{
    static auto* const real = Real<decltype(CreateStringShim)>(L"combase.dll", "WindowsCreateString");
    const HRESULT result = real(text, length, string);
    liveStrings += *string != nullptr ? 1 : 0;
    return result;
}
HRESULT WINAPI DeleteStringShim(HSTRING string)
{
    static auto* const real = Real<decltype(DeleteStringShim)>(L"combase.dll", "WindowsDeleteString");
    liveStrings -= string != nullptr ? 1 : 0;
    return real(string);
}
BSTR WINAPI CreateBasicStringShim(const OLECHAR* text)
{
    static auto* const real = Real<decltype(CreateBasicStringShim)>(L"oleaut32.dll", "SysAllocString");
    ++liveBasicStrings;
    return real(text);
}

// --- Functions that the product looks up
HRESULT WINAPI ProductCreateStringShim(const wchar_t* text, UINT32 length, HSTRING* string)
{
    const HRESULT failure = FailureOf("WindowsCreateString");
    return FAILED(failure) ? failure : CreateStringShim(text, length, string);
}
HRESULT WINAPI DuplicateStringShim(HSTRING string, HSTRING* copy)
{
    static auto* const real = Real<decltype(DuplicateStringShim)>(L"combase.dll", "WindowsDuplicateString");
    const HRESULT failure = FailureOf("WindowsDuplicateString");
    const HRESULT result = FAILED(failure) ? failure : real(string, copy);
    liveStrings += SUCCEEDED(result) && *copy != nullptr ? 1 : 0;
    return result;
}
void WINAPI FreeBasicStringShim(BSTR text)
{
    static auto* const real = Real<decltype(FreeBasicStringShim)>(L"oleaut32.dll", "SysFreeString");
    liveBasicStrings -= text != nullptr ? 1 : 0;
    real(text);
}
HRESULT WINAPI ActivateShim(HSTRING name, const GUID& id, void** factory)
{
    current->onActivation();
    component::IActivationFactory* found = nullptr;
    HRESULT result = lab::GetFactory(lab::TextOf(name), &found);
    if (found != nullptr)
    {
        result = found->QueryInterface(id, factory);
        found->Release();
    }
    return result;
}

FARPROC WINAPI LookUpShim(HMODULE module, const char* name)
{
    static const std::map<std::string, void*> shims = {
        {"RoGetActivationFactory", reinterpret_cast<void*>(&ActivateShim)},
        {"WindowsCreateString", reinterpret_cast<void*>(&ProductCreateStringShim)},
        {"WindowsDuplicateString", reinterpret_cast<void*>(&DuplicateStringShim)},
        {"WindowsDeleteString", reinterpret_cast<void*>(&DeleteStringShim)},
        {"SysFreeString", reinterpret_cast<void*>(&FreeBasicStringShim)},
    };
    if (reinterpret_cast<UINT_PTR>(name) <= 0xFFFF)
    {
        return realLookUp(module, name);  // by number
    }
    if (current != nullptr && current->missingFunctions.contains(name))
    {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    const auto shim = shims.find(name);
    return shim == shims.end() ? realLookUp(module, name) : reinterpret_cast<FARPROC>(shim->second);
}

bool MayBeHeld(const std::wstring& line)
{
    return line.ends_with(L" released count=0") || line == L"still held: PackageManagerFactory refs=1" ||
           line == L"still held: StoreContextFactory refs=1";
}
}  // namespace

lab::Answer Failure(HRESULT code, const std::wstring& text)
{
    lab::Answer answer;
    answer.result = answer.errorObjectResult = code;
    answer.hasErrorObject = answer.hasText = true;
    answer.text = text;
    return answer;
}

FakeRuntime::FakeRuntime()
    : lookUp_((current = this, &__imp_GetProcAddress), &LookUpShim),
      createString_((realLookUp = realLookUp != nullptr ? realLookUp : reinterpret_cast<LookUp*>(lookUp_.Original()),
                     &__imp_WindowsCreateString),
                    &CreateStringShim),
      deleteString_(&__imp_WindowsDeleteString, &DeleteStringShim),
      createBasicString_(&__imp_SysAllocString, &CreateBasicStringShim)
{
    store.completion.milliseconds = 5;
}

FakeRuntime::~FakeRuntime()
{
    lab::RecordWhatTheProgramStillHolds();
    lab::RecordWhatIsStillHeld();
    for (const std::wstring& line : heldAtEnd)
    {
        EXPECT_TRUE(MayBeHeld(line)) << testing::PrintToString(line);
    }
    EXPECT_EQ(liveStrings, 0);
    EXPECT_EQ(liveBasicStrings, 0);
    current = nullptr;
}

void FakeRuntime::AnswerEveryClass(const std::wstring& method, const lab::Answer& answer)
{
    manager.answers[method] = store.answers[method] = answer;
}

void FakeRuntime::Record(const std::wstring& call)
{
    constexpr std::wstring_view kSuccess = L" -> 0x0";
    calls_.Add(call.ends_with(kSuccess) ? call.substr(0, call.size() - kSuccess.size()) : call);
    onCall(call);
}
}  // namespace repair

// --- What the component asks its host for
namespace lab
{
void Record(const std::wstring& text)
{
    repair::current->Record(text);
}

void RecordAtEnd(const std::wstring& text)
{
    repair::heldAtEnd.push_back(text);
}

const Script& TheScript()
{
    return *repair::current;
}

std::vector<PackageScript> InstalledPackages()
{
    return repair::current->packages;
}

void RemovePackage(const PackageScript& package)
{
    std::erase_if(repair::current->packages, [&](const PackageScript& other) { return other.name == package.name; });
}

void AddPackage(const std::wstring& name, abi::PackageVersion version)
{
    repair::current->packages.push_back({name, version});
}
}  // namespace lab

HRESULT winrt_abi::UnusedSlot(const wchar_t* interfaceName, const wchar_t* method)
{
    ADD_FAILURE() << testing::PrintToString(interfaceName) << ": " << testing::PrintToString(method) << " was called";
    return E_NOTIMPL;
}
