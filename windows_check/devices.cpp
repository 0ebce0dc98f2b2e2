// Display adapters and driver packages, through SetupAPI as the inventory asks it.
#include <memory>
#include <vector>

#include "base/owned.h"
#include "inventory/constants.h"
#include "inventory/setup_api.h"
#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr DEVPROPKEY kProblemCode = {{0x4340A6C5, 0x93FA, 0x4706, {0x97, 0x2C, 0x7B, 0x64, 0x80, 0x08, 0xA5, 0xA7}}, 3};
constexpr wchar_t kNoAdapter[] = L"no display adapter is present";

struct DeviceListKind
{
    using Handle = HDEVINFO;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle list) noexcept { SetupDiDestroyDeviceInfoList(list); }
};
using DeviceList = repair::Owned<DeviceListKind>;

DeviceList OpenAdapters()
{
    return DeviceList(SetupDiGetClassDevsW(&repair::kDisplayClass, nullptr, nullptr, DIGCF_PRESENT));
}

bool GetAdapter(const DeviceList& list, DWORD index, SP_DEVINFO_DATA& device)
{
    device = {};
    device.cbSize = sizeof(device);
    return SetupDiEnumDeviceInfo(list.Get(), index, &device) != 0;
}

// The same question for each present adapter; the first answer that is not `wanted` is what was seen.
template <typename Ask>
Seen ForEachAdapter(const wchar_t* wanted, Ask ask)
{
    const DeviceList list = OpenAdapters();
    if (!list)
    {
        return Saw(L"no list: " + Number(GetLastError()));
    }
    SP_DEVINFO_DATA device = {};
    std::wstring detail;
    DWORD index = 0;
    for (; GetAdapter(list, index, device); ++index)
    {
        const std::wstring seen = ask(list.Get(), device, detail);
        if (seen != wanted)
        {
            return Saw(seen, detail);
        }
    }
    Need(index > 0, kNoAdapter);
    return Saw(wanted, detail);
}

FACT(devices, list)
{
    const DeviceList list = OpenAdapters();
    SP_DEVINFO_DATA device = {};
    DWORD count = 0;
    while (GetAdapter(list, count, device))
    {
        ++count;
    }
    const DWORD error = GetLastError();
    return Saw(list && error == ERROR_NO_MORE_ITEMS ? L"a list that ends with 259" : L"error " + Number(error),
               Number(count) + L" adapters");
}

FACT(devices, structure_sizes)
{
    const DeviceList list = OpenAdapters();
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device) + 4;
    const BOOL isWrong = SetupDiEnumDeviceInfo(list.Get(), 0, &device);
    const DWORD error = GetLastError();
    Need(GetAdapter(list, 0, device), kNoAdapter);
    return Saw(L"32: ok, 36: " + Code(isWrong != 0, error));
}

FACT(devices, instance_id)
{
    return ForEachAdapter(L"fits", [](HDEVINFO list, SP_DEVINFO_DATA& device, std::wstring& detail) {
        wchar_t id[repair::kInstanceIdCharacters] = {};
        DWORD needed = 0;
        const BOOL isRead = SetupDiGetDeviceInstanceIdW(list, &device, id, repair::kInstanceIdCharacters, &needed);
        detail += std::wstring(id).substr(0, 21) + L" ";  // bus, vendor and device; what follows tells machines apart
        if (isRead == 0)
        {
            return Number(GetLastError());
        }
        return std::wstring(needed == std::wcslen(id) + 1 ? L"fits" : L"another length than said");
    });
}

FACT(devices, property_size)
{
    constexpr wchar_t kWanted[] = L"122, bytes with the terminator";
    return ForEachAdapter(kWanted, [&](HDEVINFO list, SP_DEVINFO_DATA& device, std::wstring& detail) {
        DWORD bytes = 0;
        const BOOL isRead =
            SetupDiGetDeviceRegistryPropertyW(list, &device, SPDRP_DEVICEDESC, nullptr, nullptr, 0, &bytes);
        const DWORD error = GetLastError();
        std::vector<wchar_t> text(bytes + 1);
        const BOOL isReadNow = SetupDiGetDeviceRegistryPropertyW(list, &device, SPDRP_DEVICEDESC, nullptr,
                                                                 reinterpret_cast<BYTE*>(text.data()), bytes, nullptr);
        detail += Quoted(text.data()) + L" ";
        if (isRead != 0 || isReadNow == 0)
        {
            return L"first " + Code(isRead != 0, error) + L", then " + Code(isReadNow != 0);
        }
        const bool isExact = bytes == (std::wcslen(text.data()) + 1) * sizeof(wchar_t);
        return Number(error) + (isExact ? L", bytes with the terminator" : L", " + Number(bytes) + L" bytes");
    });
}

std::wstring DriverKey(HDEVINFO list, SP_DEVINFO_DATA& device)
{
    wchar_t key[256] = {};
    SetupDiGetDeviceRegistryPropertyW(list, &device, SPDRP_DRIVER, nullptr, reinterpret_cast<BYTE*>(key),
                                      sizeof(key) - sizeof(wchar_t), nullptr);
    return key;
}

FACT(devices, driver_key)
{
    return ForEachAdapter(L"opens", [](HDEVINFO list, SP_DEVINFO_DATA& device, std::wstring& detail) {
        const std::wstring key = DriverKey(list, device);
        detail += key + L" ";
        HKEY opened = nullptr;
        const LSTATUS status =
            RegOpenKeyExW(HKEY_LOCAL_MACHINE, (repair::kDriverKeys + key).c_str(), 0, KEY_READ, &opened);
        RegCloseKey(opened);
        return key.empty() ? std::wstring(L"no key") : status == ERROR_SUCCESS ? L"opens" : Number(status);
    });
}

FACT(devices, problem_code)
{
    constexpr wchar_t kWanted[] = L"a number of 4 bytes";
    return ForEachAdapter(kWanted, [&](HDEVINFO list, SP_DEVINFO_DATA& device, std::wstring& detail) -> std::wstring {
        constexpr DEVPROPTYPE kUnsigned32 = 7;
        DWORD problem = 0;
        DEVPROPTYPE type = 0;
        DWORD bytes = 0;
        if (SetupDiGetDevicePropertyW(list, &device, &kProblemCode, &type, reinterpret_cast<BYTE*>(&problem),
                                      sizeof(problem), &bytes, 0) == 0)
        {
            return Number(GetLastError());
        }
        detail += Number(problem) + L" ";
        return type == kUnsigned32 && bytes == sizeof(problem) ? kWanted : L"type " + Number(type);
    });
}

bool GetDriver(HDEVINFO list, SP_DEVINFO_DATA& device, DWORD index, SP_DRVINFO_DATA_V2_W& driver)
{
    driver = {};
    driver.cbSize = sizeof(driver);
    return SetupDiEnumDriverInfoW(list, &device, SPDIT_COMPATDRIVER, index, &driver) != 0;
}

FACT(devices, compatible_drivers)
{
    return ForEachAdapter(L"at least one", [](HDEVINFO list, SP_DEVINFO_DATA& device, std::wstring& detail) {
        if (SetupDiBuildDriverInfoList(list, &device, SPDIT_COMPATDRIVER) == 0)
        {
            return L"no list: " + Number(GetLastError());
        }
        SP_DRVINFO_DATA_V2_W driver = {};
        DWORD count = 0;
        while (GetDriver(list, device, count, driver))
        {
            detail += Quoted(driver.Description) + L" ";
            ++count;
        }
        const DWORD error = GetLastError();
        if (error != ERROR_NO_MORE_ITEMS)
        {
            return L"the list ends with " + Number(error);
        }
        return std::wstring(count > 0 ? L"at least one" : L"none");
    });
}

// The INF of a package as the tool asks for it; `needed` is what the first call says, `error` its code.
std::wstring InfOf(HDEVINFO list, SP_DEVINFO_DATA& device, SP_DRVINFO_DATA_V2_W& driver, DWORD& needed, DWORD& error)
{
    needed = 0;
    error = SetupDiGetDriverInfoDetailW(list, &device, &driver, nullptr, 0, &needed) == 0 ? GetLastError() : 0;
    const DWORD bytes = std::max<DWORD>(needed, sizeof(SP_DRVINFO_DETAIL_DATA_W));
    const auto memory = std::make_unique<std::byte[]>(bytes);
    auto* const detail = reinterpret_cast<SP_DRVINFO_DETAIL_DATA_W*>(memory.get());
    detail->cbSize = sizeof(SP_DRVINFO_DETAIL_DATA_W);
    if (SetupDiGetDriverInfoDetailW(list, &device, &driver, detail, bytes, nullptr) == 0)
    {
        return L"";
    }
    return detail->InfFileName;
}

// Asks about every compatible package of every adapter.
template <typename Ask>
Seen ForEachPackage(const wchar_t* wanted, Ask ask)
{
    bool hasAny = false;
    const Seen seen = ForEachAdapter(wanted, [&](HDEVINFO list, SP_DEVINFO_DATA& device, std::wstring& detail) {
        SetupDiBuildDriverInfoList(list, &device, SPDIT_COMPATDRIVER);
        SP_DRVINFO_DATA_V2_W driver = {};
        for (DWORD index = 0; GetDriver(list, device, index, driver); ++index)
        {
            hasAny = true;
            const std::wstring answer = ask(list, device, driver, detail);
            if (answer != wanted)
            {
                return answer;
            }
        }
        return std::wstring(wanted);
    });
    Need(hasAny, L"no compatible driver is listed");
    return seen;
}

FACT(devices, detail_size)
{
    constexpr wchar_t kWanted[] = L"122, at least the structure";
    return ForEachPackage(
        kWanted, [&](HDEVINFO list, SP_DEVINFO_DATA& device, SP_DRVINFO_DATA_V2_W& driver, std::wstring& detail) {
            DWORD needed = 0;
            DWORD error = 0;
            InfOf(list, device, driver, needed, error);
            detail += Number(needed) + L" ";
            return Number(error) +
                   (needed >= sizeof(SP_DRVINFO_DETAIL_DATA_W) ? L", at least the structure" : L", " + Number(needed));
        });
}

FACT(devices, detail_names_inf)
{
    return ForEachPackage(
        L"a full path", [](HDEVINFO list, SP_DEVINFO_DATA& device, SP_DRVINFO_DATA_V2_W& driver, std::wstring& detail) {
            DWORD needed = 0;
            DWORD error = 0;
            const std::wstring inf = InfOf(list, device, driver, needed, error);
            detail += inf + L" ";
            const bool isFull = inf.size() > 3 && inf[1] == L':';
            return isFull && GetFileAttributesW(inf.c_str()) != INVALID_FILE_ATTRIBUTES ? L"a full path"
                                                                                        : L"no file: " + inf;
        });
}

std::wstring StoreLocation(const std::wstring& inf)
{
    wchar_t path[MAX_PATH] = {};
    DWORD needed = 0;
    if (SetupGetInfDriverStoreLocationW(inf.c_str(), nullptr, nullptr, path, MAX_PATH, &needed) == 0)
    {
        return L"error " + Number(GetLastError());
    }
    return path;
}

bool IsInDriverStore(const std::wstring& path)
{
    return Lower(path).find(L"\\driverstore\\filerepository\\") != std::wstring::npos &&
           Lower(path).ends_with(L".inf") && GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

FACT(devices, store_of_path)
{
    return ForEachPackage(L"an INF there", [](HDEVINFO list, SP_DEVINFO_DATA& device, SP_DRVINFO_DATA_V2_W& driver,
                                              std::wstring& detail) {
        DWORD needed = 0;
        DWORD error = 0;
        const std::wstring location = StoreLocation(InfOf(list, device, driver, needed, error));
        detail += location + L" ";
        return IsInDriverStore(location) ? std::wstring(L"an INF there") : location;
    });
}

FACT(devices, store_of_unknown)
{
    wchar_t path[MAX_PATH] = L"untouched";
    DWORD needed = 0;
    const BOOL isFound =
        SetupGetInfDriverStoreLocationW(L"C:\\TavikWindowsCheck\\none.inf", nullptr, nullptr, path, MAX_PATH, &needed);
    return Saw((isFound != 0 ? L"found" : L"refused") +
                   std::wstring(std::wstring(path) == L"untouched" ? L", buffer untouched" : L", buffer changed"),
               Number(GetLastError()));
}
}  // namespace
}  // namespace windows_check
