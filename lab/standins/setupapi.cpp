// Stand-in for setupapi.dll: devices, drivers and INF files are Wine's, but for its own adapter; where a package lies
// in the driver store, which Wine does not know, is answered from C:\lab\standins\driverstore.txt.
#include <windows.h>
#include <setupapi.h>

#include <cwchar>

#include "driver_store.h"
#include "fault.h"

using standin::Call;
using standin::Failure;

namespace standin
{
const std::vector<std::wstring> kSpecialKeys;
}

namespace
{
std::wstring GuidText(const GUID& guid)
{
    wchar_t text[40];
    std::swprintf(text, std::size(text), L"{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1, guid.Data2,
                  guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    return text;
}

// Takes the adapter that Wine 10 adds to each machine out of a list. In the registry it has to stay: without it Wine
// makes all adapters anew and drops those of the machine. The watcher hides the one of Wine 8.
void RemoveOwnAdapter(HDEVINFO set)
{
    const auto next = REAL(SetupDiEnumDeviceInfo)();
    const auto property = REAL(SetupDiGetDeviceRegistryPropertyW)();
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof device;
    for (DWORD index = 0; next(set, index, &device) != 0; ++index)
    {
        wchar_t name[64] = L"";
        property(set, &device, SPDRP_DEVICEDESC, nullptr, reinterpret_cast<BYTE*>(name), sizeof name - sizeof *name,
                 nullptr);
        if (std::wcscmp(name, L"Wine GPU") == 0)
        {
            REAL(SetupDiDeleteDeviceInfo)()(set, &device);
            break;
        }
    }
}
}  // namespace

extern "C"
{
HDEVINFO WINAPI Lab_SetupDiGetClassDevsW(const GUID* classGuid, PCWSTR enumerator, HWND parent, DWORD flags)
{
    Call call(L"SetupDiGetClassDevsW");
    call.Raw(L"class", classGuid == nullptr ? L"(null)" : GuidText(*classGuid));
    call.Text(L"enumerator", enumerator).Flags(L"parent", reinterpret_cast<ULONG_PTR>(parent)).Flags(L"flags", flags);
    const HDEVINFO set =
        call.Forward(Failure::InvalidHandle, REAL(SetupDiGetClassDevsW), classGuid, enumerator, parent, flags);
    if (call.WasForwarded() && set != INVALID_HANDLE_VALUE)
    {
        const DWORD error = GetLastError();
        RemoveOwnAdapter(set);
        SetLastError(error);
    }
    return set;
}

BOOL WINAPI Lab_SetupDiEnumDeviceInfo(HDEVINFO set, DWORD index, PSP_DEVINFO_DATA data)
{
    Call call(L"SetupDiEnumDeviceInfo");
    call.Number(L"index", index).Number(L"size", data == nullptr ? 0 : data->cbSize);
    return call.Forward(Failure::Zero, REAL(SetupDiEnumDeviceInfo), set, index, data);
}

BOOL WINAPI Lab_SetupDiGetDeviceInstanceIdW(HDEVINFO set, PSP_DEVINFO_DATA data, PWSTR buffer, DWORD size,
                                            PDWORD required)
{
    Call call(L"SetupDiGetDeviceInstanceIdW");
    call.Number(L"size", size);
    const BOOL result =
        call.Forward(Failure::Zero, REAL(SetupDiGetDeviceInstanceIdW), set, data, buffer, size, required);
    if (result && call.WasForwarded())
    {
        call.Text(L"id", buffer);
    }
    return result;
}

BOOL WINAPI Lab_SetupDiGetDeviceRegistryPropertyW(HDEVINFO set, PSP_DEVINFO_DATA data, DWORD property, PDWORD type,
                                                  PBYTE buffer, DWORD size, PDWORD required)
{
    Call call(L"SetupDiGetDeviceRegistryPropertyW");
    call.Number(L"property", property).Number(L"size", size);
    const BOOL result = call.Forward(Failure::Zero, REAL(SetupDiGetDeviceRegistryPropertyW), set, data, property, type,
                                     buffer, size, required);
    if (call.WasForwarded() && required != nullptr)
    {
        call.Number(L"required", *required);
    }
    if (result && call.WasForwarded() && buffer != nullptr &&
        (property == SPDRP_DEVICEDESC || property == SPDRP_DRIVER))
    {
        call.Text(L"text", std::wstring(reinterpret_cast<const wchar_t*>(buffer), size / sizeof(wchar_t)).c_str());
    }
    return result;
}

BOOL WINAPI Lab_SetupDiGetDevicePropertyW(HDEVINFO set, PSP_DEVINFO_DATA data, const DEVPROPKEY* key, DEVPROPTYPE* type,
                                          PBYTE buffer, DWORD size, PDWORD required, DWORD flags)
{
    Call call(L"SetupDiGetDevicePropertyW");
    call.Raw(L"key", GuidText(key->fmtid)).Number(L"pid", key->pid).Number(L"type", *type).Number(L"size", size);
    call.Flags(L"flags", flags);
    return call.Forward(Failure::Zero, REAL(SetupDiGetDevicePropertyW), set, data, key, type, buffer, size, required,
                        flags);
}

BOOL WINAPI Lab_SetupDiBuildDriverInfoList(HDEVINFO set, PSP_DEVINFO_DATA data, DWORD type)
{
    Call call(L"SetupDiBuildDriverInfoList");
    call.Number(L"type", type);
    return call.Forward(Failure::Zero, REAL(SetupDiBuildDriverInfoList), set, data, type);
}

BOOL WINAPI Lab_SetupDiEnumDriverInfoW(HDEVINFO set, PSP_DEVINFO_DATA data, DWORD type, DWORD index,
                                       PSP_DRVINFO_DATA_W driver)
{
    Call call(L"SetupDiEnumDriverInfoW");
    call.Number(L"type", type).Number(L"index", index).Number(L"size", driver == nullptr ? 0 : driver->cbSize);
    return call.Forward(Failure::Zero, REAL(SetupDiEnumDriverInfoW), set, data, type, index, driver);
}

BOOL WINAPI Lab_SetupDiGetDriverInfoDetailW(HDEVINFO set, PSP_DEVINFO_DATA data, PSP_DRVINFO_DATA_W driver,
                                            PSP_DRVINFO_DETAIL_DATA_W detail, DWORD size, PDWORD required)
{
    Call call(L"SetupDiGetDriverInfoDetailW");
    call.Number(L"size", size).Number(L"detail", detail == nullptr ? 0 : detail->cbSize);
    const BOOL result =
        call.Forward(Failure::Zero, REAL(SetupDiGetDriverInfoDetailW), set, data, driver, detail, size, required);
    if (result && call.WasForwarded() && detail != nullptr)
    {
        call.Text(L"inf", detail->InfFileName);
    }
    return result;
}

BOOL WINAPI Lab_SetupGetInfDriverStoreLocationW(PCWSTR inf, PSP_ALTPLATFORM_INFO platform, PCWSTR locale, PWSTR buffer,
                                                DWORD size, PDWORD required)
{
    Call call(L"SetupGetInfDriverStoreLocationW");
    call.Text(L"inf", inf).Flags(L"platform", reinterpret_cast<ULONG_PTR>(platform)).Text(L"locale", locale);
    call.Number(L"size", size);
    const BOOL result =
        call.Run<BOOL>(Failure::Zero, [&] { return standin::LocateInDriverStore(inf, buffer, size, required); });
    if (result && call.WasForwarded())
    {
        call.Text(L"location", buffer);
    }
    return result;
}

BOOL WINAPI Lab_SetupDiDestroyDeviceInfoList(HDEVINFO set)
{
    Call call(L"SetupDiDestroyDeviceInfoList");
    return call.Forward(Failure::Zero, REAL(SetupDiDestroyDeviceInfoList), set);
}

HINF WINAPI Lab_SetupOpenInfFileW(PCWSTR path, PCWSTR infClass, DWORD style, PUINT errorLine)
{
    Call call(L"SetupOpenInfFileW");
    call.Text(L"path", path).Text(L"class", infClass).Flags(L"style", style);
    return call.Forward(Failure::InvalidHandle, REAL(SetupOpenInfFileW), path, infClass, style, errorLine);
}

BOOL WINAPI Lab_SetupFindFirstLineW(HINF inf, PCWSTR section, PCWSTR key, PINFCONTEXT context)
{
    Call call(L"SetupFindFirstLineW");
    call.Text(L"section", section).Text(L"key", key);
    return call.Forward(Failure::Zero, REAL(SetupFindFirstLineW), inf, section, key, context);
}

BOOL WINAPI Lab_SetupFindNextLine(PINFCONTEXT from, PINFCONTEXT to)
{
    Call call(L"SetupFindNextLine");
    return call.Forward(Failure::Zero, REAL(SetupFindNextLine), from, to);
}

BOOL WINAPI Lab_SetupGetLineTextW(PINFCONTEXT context, HINF inf, PCWSTR section, PCWSTR key, PWSTR buffer, DWORD size,
                                  PDWORD required)
{
    Call call(L"SetupGetLineTextW");
    call.Text(L"section", section).Text(L"key", key).Number(L"size", size);
    const BOOL result =
        call.Forward(Failure::Zero, REAL(SetupGetLineTextW), context, inf, section, key, buffer, size, required);
    if (result && call.WasForwarded())
    {
        call.Text(L"text", buffer);
    }
    return result;
}

void WINAPI Lab_SetupCloseInfFile(HINF inf)
{
    Call call(L"SetupCloseInfFile");
    call.ForwardVoid(REAL(SetupCloseInfFile), inf);
}
}
