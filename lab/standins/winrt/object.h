// The common part of every object of the component: counting, interface look-up, and a list of what is still held.
#pragma once
#include <atomic>
#include <string>

#include "abi.h"

namespace lab
{
std::wstring InterfaceName(const GUID& iid);

// Known to the list of living objects, so that the end of the process can tell what the program never released.
class Living
{
public:
    explicit Living(std::wstring className);
    Living(const Living&) = delete;
    Living& operator=(const Living&) = delete;
    virtual ~Living();

    const std::wstring& ClassName() const { return className_; }
    ULONG References() const { return references_; }

protected:
    std::atomic<ULONG> references_ = 1;

private:
    std::wstring className_;
};

// Writes "still held: <class> refs=<n>" for each living object.
void RecordWhatIsStillHeld();

template <class First, class... Others>
class Object : public Living, public First, public Others...
{
public:
    using Living::Living;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        *object = nullptr;
        const HRESULT refusal = Refuse(iid);
        if (SUCCEEDED(refusal))
            *object = Find(iid);
        if (*object != nullptr)
            AddRef();
        const HRESULT result = *object != nullptr ? S_OK : FAILED(refusal) ? refusal : E_NOINTERFACE;
        return Record(L"QueryInterface " + ClassName() + L" " + InterfaceName(iid), result);
    }

    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --references_;
        if (left == 0)
            delete this;
        return left;
    }

    // Only asked of objects that are IInspectable; the other ones do not have these slots.
    virtual HRESULT STDMETHODCALLTYPE GetIids(ULONG*, GUID**) { return UnusedSlot(L"IInspectable", L"GetIids"); }
    virtual HRESULT STDMETHODCALLTYPE GetTrustLevel(INT32*) { return UnusedSlot(L"IInspectable", L"GetTrustLevel"); }
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HSTRING* name)
    {
        const std::wstring& text = ClassName();
        return WindowsCreateString(text.c_str(), static_cast<UINT32>(text.size()), name);
    }

protected:
    // A failure code: the interface is there, but the case wants it refused.
    virtual HRESULT Refuse(const GUID&) { return S_OK; }

private:
    void* Find(const GUID& iid)
    {
        void* found = nullptr;
        if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, abi::IInspectable::kIid))
            return static_cast<First*>(this);
        const auto offer = [&](auto* candidate, const GUID& offered) {
            if (found == nullptr && IsEqualGUID(iid, offered))
                found = candidate;
        };
        offer(static_cast<First*>(this), First::kIid);
        (offer(static_cast<Others*>(this), Others::kIid), ...);
        return found;
    }
};

// One reference of the program's own object kept until the process ends, to see then what else holds it.
void KeepUntilTheEnd(const wchar_t* what, IUnknown* object);
void RecordWhatTheProgramStillHolds();
}  // namespace lab
