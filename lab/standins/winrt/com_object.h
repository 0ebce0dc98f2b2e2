// The common part of every COM object of the lab and of the in-process fake: counting and interface look-up.
#pragma once
#include <atomic>
#include <type_traits>

#include "abi.h"

namespace winrt_abi
{
// Implements the interfaces; the first one is the object's identity. Begins with one reference.
template <class First, class... Others>
class ComObject : public First, public Others...
{
public:
    ComObject() = default;
    ComObject(const ComObject&) = delete;
    ComObject& operator=(const ComObject&) = delete;
    ComObject(ComObject&&) = delete;
    ComObject& operator=(ComObject&&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        HRESULT result = Refuse(iid);
        *object = SUCCEEDED(result) ? Find(iid) : nullptr;
        if (*object != nullptr)
        {
            AddRef();
        }
        else if (SUCCEEDED(result))
        {
            result = E_NOINTERFACE;
        }
        Asked(iid, result);
        return result;
    }

    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --references_;
        if (left == 0)
        {
            delete this;
        }
        return left;
    }

    // Called only on objects that are IInspectable; on other objects these are not part of an interface.
    virtual HRESULT STDMETHODCALLTYPE GetIids(ULONG*, GUID**) { return UnusedSlot(L"IInspectable", L"GetIids"); }
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HSTRING*)
    {
        return UnusedSlot(L"IInspectable", L"GetRuntimeClassName");
    }
    virtual HRESULT STDMETHODCALLTYPE GetTrustLevel(INT32*) { return UnusedSlot(L"IInspectable", L"GetTrustLevel"); }

protected:
    virtual ~ComObject() = default;

    // Returns a failure code to refuse an interface that the object has.
    virtual HRESULT Refuse(const GUID&) { return S_OK; }
    virtual void Asked(const GUID&, HRESULT) {}

    ULONG CountReferences() const { return references_; }

private:
    void* Find(const GUID& iid)
    {
        const bool isInspectable = std::is_base_of_v<IInspectable, First> && IsEqualGUID(iid, IInspectable::kIid);
        void* found = IsEqualGUID(iid, IID_IUnknown) || isInspectable ? static_cast<First*>(this) : nullptr;
        const auto offer = [&](auto* candidate, const GUID& offered) {
            if (found == nullptr && IsEqualGUID(iid, offered))
            {
                found = candidate;
            }
        };
        offer(static_cast<First*>(this), First::kIid);
        (offer(static_cast<Others*>(this), Others::kIid), ...);
        return found;
    }

    std::atomic<ULONG> references_ = 1;
};
}  // namespace winrt_abi
