// Windows Runtime objects as the tool gets them, for the checks of packages and of the Store.
#pragma once

#include <string>

#include "store/winrt_runtime.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace abi = repair::abi;

// Not in an unnamed namespace: there the compiler would know that nobody implements these, and leave the calls out.

// The same interface as the tool's, with a neighbour that anybody may call: packages of the current user. That it
// answers shows that the slots in front of it are as many as the tool counts as well.
struct PackageManagerOfUser : abi::IInspectable
{
    static constexpr GUID kIid = abi::IPackageManager::kIid;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot6() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot7() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot8() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot9() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot10() = 0;
    virtual HRESULT STDMETHODCALLTYPE FindPackages(abi::IPackageIterable** packages) = 0;
    virtual HRESULT STDMETHODCALLTYPE FindPackagesByUserSecurityId(abi::HString sid,
                                                                   abi::IPackageIterable** packages) = 0;
};

struct PackageManager2OfUser : abi::IInspectable
{
    static constexpr GUID kIid = abi::IPackageManager2::kIid;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot6() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot7() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot8() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot9() = 0;
    virtual HRESULT STDMETHODCALLTYPE
    FindPackagesByUserSecurityIdWithPackageTypes(abi::HString sid, UINT32 types, abi::IPackageIterable** packages) = 0;
};
// The tool's interface with its first slot, a question without any effect: may packages be downloaded silently?
struct StoreContext3First : abi::IInspectable
{
    static constexpr GUID kIid = abi::IStoreContext3::kIid;
    virtual HRESULT STDMETHODCALLTYPE get_CanSilentlyDownloadStorePackageUpdates(abi::Boolean* can) = 0;
};

// The class name that an object gives itself.
std::wstring ClassOf(abi::IInspectable* object);

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
