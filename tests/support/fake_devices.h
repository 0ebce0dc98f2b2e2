// Display devices answered through SetupAPI's functions, instead of those of this machine. What the product passes is
// checked on the way. The driver key of an adapter is in the test's registry.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "inventory/setup_api.h"
#include "support/machine_registry.h"
#include "support/substitute.h"

IMPORTED(SetupDiBuildDriverInfoList, SetupDiDestroyDeviceInfoList, SetupDiEnumDeviceInfo, SetupDiEnumDriverInfoW,
         SetupDiGetClassDevsW, SetupDiGetDeviceInstanceIdW, SetupDiGetDevicePropertyW,
         SetupDiGetDeviceRegistryPropertyW, SetupDiGetDriverInfoDetailW, SetupGetInfDriverStoreLocationW)

namespace repair
{
struct FakeDriverPackage
{
    std::wstring infName;    // as the driver's detail names it
    std::wstring storePath;  // empty: the driver store does not know it
};

struct FakeDevice
{
    std::wstring id;
    std::wstring driverKey;  // below the class key
    std::optional<std::wstring> description = L"Marlin 5";
    DWORD problem = 0;
    std::vector<FakeDriverPackage> packages = {};
    DWORD idError = 0;  // the codes with which the queries fail
    DWORD driverKeyError = 0;
    DWORD problemError = 0;
    DWORD buildError = 0;
};

class FakeDevices
{
public:
    std::deque<FakeDevice> devices;
    std::vector<std::wstring> calls;  // opening, driver lists, closing

    // An adapter whose active driver has the release.
    FakeDevice& AddAdapter(const std::wstring& id, const std::wstring& release)
    {
        const std::wstring key = L"{4d36e968}\\" + std::to_wstring(devices.size());
        MachineRegistry::SetString(L"SYSTEM\\CurrentControlSet\\Control\\Class\\" + key, L"ReleaseVersion", release);
        return devices.emplace_back(FakeDevice{id, key});
    }

private:
    static constexpr DWORD kDetailBytes = 1700;  // larger than the structure: compatible ids may follow it

    static HDEVINFO Handle() { return reinterpret_cast<HDEVINFO>(static_cast<INT_PTR>(0x7070)); }

    const FakeDevice& Current(HDEVINFO set, const SP_DEVINFO_DATA* device) const
    {
        EXPECT_EQ(set, Handle());
        EXPECT_EQ(device->cbSize, 32u);
        return devices.at(device->DevInst);
    }

    // A text of the device registry: first its size in bytes, then itself.
    static BOOL Give(const std::optional<std::wstring>& text, DWORD error, BYTE* buffer, DWORD bytes, DWORD* needed)
    {
        if (!text || error != 0)
        {
            EXPECT_EQ(bytes, 0u);  // no size was given
            return FailWith(error);
        }
        const DWORD size = static_cast<DWORD>((text->size() + 1) * sizeof(wchar_t));
        if (buffer == nullptr)
        {
            EXPECT_EQ(bytes, 0u);
            *needed = size;
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        EXPECT_EQ(bytes, size);
        std::memcpy(buffer, text->c_str(), size);
        return TRUE;
    }

    SUBSTITUTE(SetupDiGetClassDevsW)
    open_{[this](const GUID* kind, const wchar_t* enumerator, HWND window, DWORD flags) -> HDEVINFO {
        constexpr GUID kDisplay = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
        EXPECT_EQ(std::memcmp(kind, &kDisplay, sizeof(kDisplay)), 0);
        EXPECT_EQ(std::tuple(enumerator, window, flags), std::tuple(nullptr, nullptr, 2u));
        calls.push_back(L"open");
        return Handle();
    }};
    SUBSTITUTE(SetupDiEnumDeviceInfo)
    enumerate_{[this](HDEVINFO set, DWORD index, SP_DEVINFO_DATA* device) {
        EXPECT_EQ(set, Handle());
        EXPECT_EQ(device->cbSize, 32u);
        device->DevInst = index;
        return index < devices.size() ? TRUE : FailWith(ERROR_NO_MORE_ITEMS);
    }};
    SUBSTITUTE(SetupDiGetDeviceInstanceIdW)
    id_{[this](HDEVINFO set, SP_DEVINFO_DATA* data, wchar_t* buffer, DWORD characters, DWORD* needed) {
        const FakeDevice& device = Current(set, data);
        EXPECT_EQ(std::tuple(characters, needed), std::tuple(520u, nullptr));
        if (device.idError != 0)
        {
            return FailWith(device.idError);
        }
        wcscpy(buffer, device.id.c_str());
        return TRUE;
    }};
    SUBSTITUTE(SetupDiGetDeviceRegistryPropertyW)
    property_{
        [this](HDEVINFO set, SP_DEVINFO_DATA* data, DWORD property, DWORD*, BYTE* buffer, DWORD bytes, DWORD* needed) {
            const FakeDevice& device = Current(set, data);
            if (property == 0)
            {
                return Give(device.description, device.description ? 0 : ERROR_INVALID_DATA, buffer, bytes, needed);
            }
            EXPECT_EQ(property, 9u);
            return Give(device.driverKey, device.driverKeyError, buffer, bytes, needed);
        }};
    SUBSTITUTE(SetupDiGetDevicePropertyW)
    problem_{[this](HDEVINFO set, SP_DEVINFO_DATA* data, const DEVPROPKEY* key, DEVPROPTYPE* type, BYTE* buffer,
                    DWORD bytes, DWORD* needed, DWORD flags) {
        constexpr GUID kSet = {0x4340A6C5, 0x93FA, 0x4706, {0x97, 0x2C, 0x7B, 0x64, 0x80, 0x08, 0xA5, 0xA7}};
        EXPECT_EQ(std::memcmp(&key->fmtid, &kSet, sizeof(kSet)), 0);
        EXPECT_EQ(std::tuple(key->pid, *type, bytes, needed, flags), std::tuple(3u, 7u, 4u, nullptr, 0u));
        const FakeDevice& device = Current(set, data);
        // Written on failure too: the tool must not use it then.
        const DWORD value = device.problemError != 0 ? 99 : device.problem;
        std::memcpy(buffer, &value, sizeof(value));
        return device.problemError != 0 ? FailWith(device.problemError) : TRUE;
    }};
    SUBSTITUTE(SetupDiBuildDriverInfoList)
    build_{[this](HDEVINFO set, SP_DEVINFO_DATA* data, DWORD kind) {
        const FakeDevice& device = Current(set, data);
        EXPECT_EQ(kind, 2u);
        calls.push_back(L"drivers of " + device.id);
        return device.buildError != 0 ? FailWith(device.buildError) : TRUE;
    }};
    SUBSTITUTE(SetupDiEnumDriverInfoW)
    driver_{[this](HDEVINFO set, SP_DEVINFO_DATA* data, DWORD kind, DWORD index, SP_DRVINFO_DATA_W* driver) {
        EXPECT_EQ(kind, 2u);
        EXPECT_EQ(driver->cbSize, 1568u);
        const std::vector<FakeDriverPackage>& packages = Current(set, data).packages;
        if (index >= packages.size())
        {
            return FailWith(ERROR_NO_MORE_ITEMS);
        }
        driver->Reserved = index;
        return TRUE;
    }};
    SUBSTITUTE(SetupDiGetDriverInfoDetailW)
    detail_{[this](HDEVINFO set, SP_DEVINFO_DATA* data, SP_DRVINFO_DATA_W* driver, SP_DRVINFO_DETAIL_DATA_W* detail,
                   DWORD bytes, DWORD* needed) {
        if (detail == nullptr)
        {
            EXPECT_EQ(bytes, 0u);
            *needed = kDetailBytes;
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        EXPECT_EQ(bytes, DWORD{kDetailBytes});
        EXPECT_EQ(detail->cbSize, 1584u);
        const char* const memory = reinterpret_cast<const char*>(detail);
        EXPECT_EQ(std::string(memory + 4, bytes - 4), std::string(bytes - 4, '\0'));
        const FakeDriverPackage& package = Current(set, data).packages.at(driver->Reserved);
        package.infName.copy(detail->InfFileName, MAX_PATH - 1);
        return TRUE;
    }};
    SUBSTITUTE(SetupGetInfDriverStoreLocationW)
    store_{[this](const wchar_t* inf, SP_ALTPLATFORM_INFO* platform, const wchar_t* locale, wchar_t* buffer,
                  DWORD characters, DWORD* needed) {
        EXPECT_EQ(std::tuple(platform, locale, characters, needed), std::tuple(nullptr, nullptr, 260u, nullptr));
        for (const FakeDevice& device : devices)
        {
            for (const FakeDriverPackage& package : device.packages)
            {
                if (package.infName == inf && !package.storePath.empty())
                {
                    wcscpy(buffer, package.storePath.c_str());
                    return TRUE;
                }
            }
        }
        return FailWith(ERROR_FILE_NOT_FOUND);
    }};
    SUBSTITUTE(SetupDiDestroyDeviceInfoList)
    close_{[this](HDEVINFO set) {
        EXPECT_EQ(set, Handle());
        calls.push_back(L"close");
        return TRUE;
    }};
};
}  // namespace repair
