#include "error_info.h"

#include <oleauto.h>

#include "object.h"

namespace lab
{
namespace
{
// IErrorInfo as a list of slots with our way of naming interfaces.
struct IErrorInfoSlots : IUnknown
{
    COM_INTERFACE(IErrorInfoSlots)
    static constexpr GUID kIid = {0x1CF2B120, 0x547D, 0x101B, {0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19}};
    virtual HRESULT STDMETHODCALLTYPE GetGUID(GUID* guid) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetSource(BSTR* source) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDescription(BSTR* description) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* file) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* context) = 0;
};

class ErrorInfo final : public Object<IErrorInfoSlots, abi::IRestrictedErrorInfo>
{
public:
    explicit ErrorInfo(const Outcome& outcome) : Object(L"ErrorInfo"), outcome_(outcome) {}

    HRESULT STDMETHODCALLTYPE GetGUID(GUID* guid) override
    {
        *guid = GUID{};
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetSource(BSTR* source) override
    {
        *source = nullptr;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetDescription(BSTR* description) override
    {
        *description = SysAllocString(outcome_.description.c_str());
        return Record(L"IErrorInfo.GetDescription", S_OK);
    }

    HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* file) override
    {
        *file = nullptr;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* context) override
    {
        *context = 0;
        return S_OK;
    }

    // The plain description differs from the restricted one, so that a caller that takes the wrong one is noticed.
    HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR* description, HRESULT* error, BSTR* restrictedDescription,
                                              BSTR* capabilitySid) override
    {
        const bool isSame = outcome_.hasText && outcome_.text == outcome_.description;
        *description = SysAllocString(isSame ? L"(general description)" : outcome_.description.c_str());
        *error = outcome_.errorObjectResult;
        *restrictedDescription = outcome_.hasText ? SysAllocString(outcome_.text.c_str()) : nullptr;
        *capabilitySid = nullptr;
        return Record(L"IRestrictedErrorInfo.GetErrorDetails", S_OK);
    }

    HRESULT STDMETHODCALLTYPE GetReference(BSTR* reference) override
    {
        *reference = nullptr;
        return S_OK;
    }

protected:
    HRESULT Refuse(const GUID& iid) override
    {
        return !outcome_.isRestricted && IsEqualGUID(iid, abi::IRestrictedErrorInfo::kIid) ? E_NOINTERFACE : S_OK;
    }

private:
    Outcome outcome_;
};
}  // namespace

void PutErrorObject(const Outcome& outcome)
{
    auto* const error = new ErrorInfo(outcome);
    SetErrorInfo(0, reinterpret_cast<IErrorInfo*>(static_cast<IErrorInfoSlots*>(error)));
    error->Release();  // the thread holds it now
}
}  // namespace lab
