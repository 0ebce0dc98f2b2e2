// What every COM object of ours needs besides its own methods.
#pragma once

#include <atomic>
#include <type_traits>

#include <windows.h>

#include "store/winrt_abi.h"

namespace repair
{
// An object, counted by reference and usable from any thread, that implements the interfaces. It is created with one
// reference for the caller and deletes itself with the last one.
template <typename Derived, typename First, typename... Others>
class ComObject : public First, public Others...
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (object == nullptr)
        {
            return E_POINTER;
        }
        *object = nullptr;
        if (!Offer<First>(iid, object) && !(Offer<Others>(iid, object) || ...))
        {
            constexpr bool kIsInspectable = std::is_base_of_v<abi::IInspectable, First>;
            if (iid != IID_IUnknown && iid != abi::kIidAgileObject &&
                !(kIsInspectable && iid == abi::IInspectable::kIid))
            {
                return E_NOINTERFACE;
            }
            *object = static_cast<First*>(this);  // one object has one identity
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --references_;
        if (left == 0)
        {
            delete static_cast<Derived*>(this);
        }
        return left;
    }

    ComObject(const ComObject&) = delete;
    ComObject& operator=(const ComObject&) = delete;
    ComObject(ComObject&&) = delete;
    ComObject& operator=(ComObject&&) = delete;

protected:
    ComObject() = default;
    ~ComObject() = default;

private:
    template <typename Interface>
    bool Offer(REFIID iid, void** object)
    {
        if (iid != Interface::kIid)
        {
            return false;
        }
        *object = static_cast<Interface*>(this);
        return true;
    }

    std::atomic<ULONG> references_ = 1;
};
}  // namespace repair
