// A machine with display adapters as the test lists them, through SetupAPI's functions. No driver package is compatible
// unless `inf` names its INF file.
#pragma once

#include <windows.h>

#include <setupapi.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/machine_registry.h"
#include "support/substitute.h"

#if defined(__MINGW32__)  // in the toolchain's library but not in its header
extern "C" WINSETUPAPI BOOL WINAPI SetupGetInfDriverStoreLocationW(PCWSTR infPath, PSP_ALTPLATFORM_INFO platform,
                                                                   PCWSTR locale, PWSTR path, DWORD characters,
                                                                   PDWORD needed);
#endif

IMPORTED(SetupDiGetClassDevsW)
IMPORTED(SetupDiEnumDeviceInfo)
IMPORTED(SetupDiGetDeviceInstanceIdW)
IMPORTED(SetupDiGetDeviceRegistryPropertyW)
IMPORTED(SetupDiGetDevicePropertyW)
IMPORTED(SetupDiBuildDriverInfoList)
IMPORTED(SetupDiEnumDriverInfoW)
IMPORTED(SetupDiGetDriverInfoDetailW)
IMPORTED(SetupGetInfDriverStoreLocationW)
IMPORTED(SetupDiDestroyDeviceInfoList)

namespace repair
{
class FakeAdapters
{
public:
    struct Adapter
    {
        std::wstring description;
        std::wstring release;  // value ReleaseVersion of its driver key
        std::wstring inf = {};
    };

    // Adds one of the maker's.
    void Add(const Adapter& adapter)
    {
        MachineRegistry::SetString(L"SYSTEM\\CurrentControlSet\\Control\\Class\\" + KeyOf(adapters_.size()),
                                   L"ReleaseVersion", adapter.release);
        adapters_.push_back(adapter);
    }

    int enumerations = 0;

private:
    static std::wstring KeyOf(size_t index) { return L"{display}\\000" + std::to_wstring(index); }

    std::vector<Adapter> adapters_;

    SUBSTITUTE(SetupDiGetClassDevsW)
    list_{[this](const GUID*, const wchar_t*, HWND, DWORD) {
        ++enumerations;
        return reinterpret_cast<HDEVINFO>(this);
    }};
    SUBSTITUTE(SetupDiEnumDeviceInfo)
    device_{[this](HDEVINFO, DWORD index, SP_DEVINFO_DATA* device) {
        device->DevInst = index;
        return index < adapters_.size() ? TRUE : FailWith(ERROR_NO_MORE_ITEMS);
    }};
    SUBSTITUTE(SetupDiGetDeviceInstanceIdW)
    instance_{[](HDEVINFO, SP_DEVINFO_DATA* device, wchar_t* id, DWORD, DWORD*) {
        wcscpy(id, (L"PCI\\VEN_1E7D&DEV_000" + std::to_wstring(device->DevInst)).c_str());
        return TRUE;
    }};
    SUBSTITUTE(SetupDiGetDeviceRegistryPropertyW)
    property_{
        [this](HDEVINFO, SP_DEVINFO_DATA* device, DWORD property, DWORD*, BYTE* buffer, DWORD size, DWORD* needed) {
            const std::wstring text =
                property == SPDRP_DEVICEDESC ? adapters_[device->DevInst].description : KeyOf(device->DevInst);
            const DWORD bytes = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
            if (size < bytes)
            {
                *needed = bytes;
                return FailWith(ERROR_INSUFFICIENT_BUFFER);
            }
            std::memcpy(buffer, text.c_str(), bytes);
            return TRUE;
        }};
    SUBSTITUTE(SetupDiGetDevicePropertyW)
    problem_{
        [](HDEVINFO, SP_DEVINFO_DATA*, const DEVPROPKEY*, DEVPROPTYPE*, BYTE*, DWORD, DWORD*, DWORD) { return TRUE; }};
    SUBSTITUTE(SetupDiBuildDriverInfoList) drivers_{[](HDEVINFO, SP_DEVINFO_DATA*, DWORD) { return TRUE; }};
    SUBSTITUTE(SetupDiEnumDriverInfoW)
    driver_{[this](HDEVINFO, SP_DEVINFO_DATA* device, DWORD, DWORD index, SP_DRVINFO_DATA_V2_W*) {
        return index == 0 && !adapters_[device->DevInst].inf.empty() ? TRUE : FailWith(ERROR_NO_MORE_ITEMS);
    }};
    SUBSTITUTE(SetupDiGetDriverInfoDetailW)
    detail_{[this](HDEVINFO, SP_DEVINFO_DATA* device, SP_DRVINFO_DATA_V2_W*, SP_DRVINFO_DETAIL_DATA_W* detail, DWORD,
                   DWORD* needed) {
        if (detail == nullptr)
        {
            *needed = sizeof(SP_DRVINFO_DETAIL_DATA_W);
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        wcscpy(detail->InfFileName, adapters_[device->DevInst].inf.c_str());
        return TRUE;
    }};
    SUBSTITUTE(SetupGetInfDriverStoreLocationW)
    location_{[](const wchar_t* inf, SP_ALTPLATFORM_INFO*, const wchar_t*, wchar_t* path, DWORD, DWORD*) {
        wcscpy(path, inf);
        return TRUE;
    }};
    SUBSTITUTE(SetupDiDestroyDeviceInfoList) destroy_{[](HDEVINFO) { return TRUE; }};
};
}  // namespace repair
