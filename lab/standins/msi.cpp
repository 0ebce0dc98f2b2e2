// Stand-in for msi.dll: Windows Installer is Wine's.
#include <windows.h>
#include <msi.h>

#include <cwchar>

#include "fault.h"

using standin::Call;
using standin::Failure;

namespace standin
{
const std::vector<std::wstring> kSpecialKeys = {L"MsiGetProductInfoW value"};
}

extern "C"
{
INSTALLUILEVEL WINAPI Lab_MsiSetInternalUI(INSTALLUILEVEL level, HWND* window)
{
    Call call(L"MsiSetInternalUI");
    call.Number(L"level", level).Raw(L"window", window == nullptr ? L"(null)" : L"given");
    return call.Forward(Failure::Zero, REAL(MsiSetInternalUI), level, window);
}

UINT WINAPI Lab_MsiEnumRelatedProductsW(const wchar_t* upgradeCode, DWORD reserved, DWORD index, wchar_t* product)
{
    Call call(L"MsiEnumRelatedProductsW");
    call.Text(L"upgrade", upgradeCode).Number(L"reserved", reserved).Number(L"index", index);
    const UINT result =
        call.Forward(Failure::Code, REAL(MsiEnumRelatedProductsW), upgradeCode, reserved, index, product);
    if (result == ERROR_SUCCESS && call.WasForwarded())
    {
        call.Text(L"product", product);
    }
    return result;
}

// value=<text>: what the caller finds in its buffer when the call is not forwarded; the size rules are the real ones.
UINT WINAPI Lab_MsiGetProductInfoW(const wchar_t* product, const wchar_t* property, wchar_t* buffer, DWORD* size)
{
    Call call(L"MsiGetProductInfoW");
    call.Text(L"product", product).Text(L"property", property).Number(L"size", size == nullptr ? 0 : *size);
    const UINT result = call.Forward(Failure::Code, REAL(MsiGetProductInfoW), product, property, buffer, size);
    if (const auto given = call.Given(L"value"); given && !call.WasForwarded() && buffer != nullptr && size != nullptr)
    {
        const bool fits = given->size() < *size;
        *size = static_cast<DWORD>(given->size());
        if (!fits)
        {
            return call.Answer<UINT>(ERROR_MORE_DATA, ERROR_MORE_DATA);
        }
        std::wcscpy(buffer, given->c_str());
    }
    if (result == ERROR_SUCCESS)
    {
        call.Text(L"value", buffer);
    }
    return result;
}

UINT WINAPI Lab_MsiInstallProductW(const wchar_t* package, const wchar_t* properties)
{
    Call call(L"MsiInstallProductW");
    call.Text(L"package", package).Text(L"properties", properties);
    return call.Forward(Failure::Code, REAL(MsiInstallProductW), package, properties);
}
}
