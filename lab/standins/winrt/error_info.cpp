#include <windows.h>

#include <oleauto.h>

#include "classes.h"
#include "object.h"

namespace lab
{
namespace
{
class ErrorInfo final : public Object<abi::IErrorInfo, abi::IRestrictedErrorInfo>
{
public:
    ErrorInfo(const Answer& failure, Answers answers) : Object(L"ErrorInfo", std::move(answers)), failure_(failure) {}

    HRESULT STDMETHODCALLTYPE GetDescription(BSTR* description) override
    {
        *description = SysAllocString(failure_.description.c_str());
        return Record(L"IErrorInfo.GetDescription", S_OK);
    }

    // The plain description differs from the restricted one, so a caller that takes the wrong one is noticed.
    HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR* description, HRESULT* error, BSTR* restrictedDescription,
                                              BSTR* capabilitySid) override
    {
        const bool isSame = failure_.hasText && failure_.text == failure_.description;
        *description = SysAllocString(isSame ? L"(general description)" : failure_.description.c_str());
        *error = failure_.errorObjectResult;
        *restrictedDescription = failure_.hasText ? SysAllocString(failure_.text.c_str()) : nullptr;
        *capabilitySid = SysAllocString(L"S-1-15");
        return Record(L"IRestrictedErrorInfo.GetErrorDetails", failure_.detailsResult);
    }

private:
    Answer failure_;
};
}  // namespace

HRESULT Answer::Give() const
{
    if (hasErrorObject)
    {
        PutErrorObject(*this);
    }
    return result;
}

void PutErrorObject(const Answer& failure)
{
    Answers answers;
    if (!failure.isRestricted)
    {
        answers[abi::IRestrictedErrorInfo::kName].result = E_NOINTERFACE;
    }
    auto* const error = new ErrorInfo(failure, std::move(answers));
    void* const object = static_cast<abi::IErrorInfo*>(error);
    SetErrorInfo(0, static_cast<::IErrorInfo*>(object));
    error->Release();  // the thread holds it now
}
}  // namespace lab
