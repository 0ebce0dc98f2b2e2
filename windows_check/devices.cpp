// Display adapters and driver packages, through SetupAPI as the inventory asks it.
#include <memory>
#include <set>
#include <vector>

#include "base/owned.h"
#include "inventory/constants.h"
#include "inventory/setup_api.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr DEVPROPKEY kProblemCode = {{0x4340A6C5, 0x93FA, 0x4706, {0x97, 0x2C, 0x7B, 0x64, 0x80, 0x08, 0xA5, 0xA7}}, 3};

struct DeviceListKind
{
    using Handle = HDEVINFO;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle list) noexcept { SetupDiDestroyDeviceInfoList(list); }
};
using DeviceList = repair::Owned<DeviceListKind>;

// One present display adapter, and what the reader of the JSON is told about it.
struct Adapter
{
    HDEVINFO list = nullptr;
    SP_DEVINFO_DATA device = {};
    std::wstring detail;

    // Reads a text property; `bytes` receives the size that Windows reports.
    BOOL GetText(DWORD property, wchar_t* text, DWORD room, DWORD* bytes = nullptr)
    {
        return SetupDiGetDeviceRegistryPropertyW(list, &device, property, nullptr, reinterpret_cast<BYTE*>(text), room,
                                                 bytes);
    }
};

DeviceList OpenAdapters()
{
    return DeviceList(SetupDiGetClassDevsW(&repair::kDisplayClass, nullptr, nullptr, DIGCF_PRESENT));
}

// Asks the same about each present adapter; different answers are all reported.
template <typename Ask>
Seen OfEachAdapter(Ask ask)
{
    const DeviceList list = OpenAdapters();
    std::set<std::wstring> answers;
    Adapter adapter = {list.Get(), {sizeof(SP_DEVINFO_DATA), {}, 0, 0}, {}};
    for (DWORD index = 0; SetupDiEnumDeviceInfo(list.Get(), index, &adapter.device) != 0; ++index)
    {
        answers.insert(ask(adapter));
        adapter.detail += L" ";
    }
    Need(!answers.empty(), L"no display adapter is present");
    return {Joined({answers.begin(), answers.end()}, L" and "), adapter.detail};
}

FACT(devices, list)
{
    const DeviceList list = OpenAdapters();
    SP_DEVINFO_DATA device = {sizeof(device), {}, 0, 0};
    DWORD count = 0;
    while (SetupDiEnumDeviceInfo(list.Get(), count, &device) != 0)
    {
        ++count;
    }
    const DWORD error = GetLastError();
    return {list && error == ERROR_NO_MORE_ITEMS ? L"a list that ends with 259" : L"error " + Number(error),
            Number(count) + L" adapters"};
}

FACT(devices, instance_id)
{
    return OfEachAdapter([](Adapter& adapter) {
        wchar_t id[repair::kInstanceIdCharacters] = {};
        DWORD needed = 0;
        const BOOL isRead =
            SetupDiGetDeviceInstanceIdW(adapter.list, &adapter.device, id, repair::kInstanceIdCharacters, &needed);
        const std::wstring code = Code(isRead != 0);
        adapter.detail += std::wstring(id).substr(0, 21);  // bus, vendor and device; what follows tells machines apart
        return code != L"ok" ? code : needed == std::wcslen(id) + 1 ? L"fits" : L"another length than said";
    });
}

FACT(devices, property_size)
{
    return OfEachAdapter([](Adapter& adapter) {
        DWORD bytes = 0;
        const std::wstring first = Code(adapter.GetText(SPDRP_DEVICEDESC, nullptr, 0, &bytes) != 0);
        std::vector<wchar_t> text(bytes + 1);
        const std::wstring second = Code(adapter.GetText(SPDRP_DEVICEDESC, text.data(), bytes) != 0);
        adapter.detail += Quoted(text.data());
        const bool isExact = bytes == (std::wcslen(text.data()) + 1) * sizeof(wchar_t);
        return first + L", then " + second +
               (isExact ? L", bytes with the terminator" : L", " + Number(bytes) + L" bytes");
    });
}

FACT(devices, driver_key)
{
    return OfEachAdapter([](Adapter& adapter) {
        wchar_t key[256] = {};
        adapter.GetText(SPDRP_DRIVER, key, sizeof(key) - sizeof(wchar_t));
        adapter.detail += key;
        HKEY opened = nullptr;
        const LSTATUS status =
            RegOpenKeyExW(HKEY_LOCAL_MACHINE, (std::wstring(repair::kDriverKeys) + key).c_str(), 0, KEY_READ, &opened);
        RegCloseKey(opened);
        return key[0] == L'\0' ? L"no key" : status == ERROR_SUCCESS ? L"opens" : Number(status);
    });
}

FACT(devices, problem_code)
{
    return OfEachAdapter([](Adapter& adapter) {
        constexpr DEVPROPTYPE kUnsigned32 = 7;
        DWORD problem = 0;
        DEVPROPTYPE type = 0;
        DWORD bytes = 0;
        if (SetupDiGetDevicePropertyW(adapter.list, &adapter.device, &kProblemCode, &type,
                                      reinterpret_cast<BYTE*>(&problem), sizeof(problem), &bytes, 0) == 0)
        {
            return Number(GetLastError());
        }
        adapter.detail += Number(problem);
        return type == kUnsigned32 && bytes == sizeof(problem) ? L"a number of 4 bytes" : L"type " + Number(type);
    });
}

bool GetDriver(Adapter& adapter, DWORD index, SP_DRVINFO_DATA_V2_W& driver)
{
    driver = {};
    driver.cbSize = sizeof(driver);
    return SetupDiEnumDriverInfoW(adapter.list, &adapter.device, SPDIT_COMPATDRIVER, index, &driver) != 0;
}

FACT(devices, compatible_drivers)
{
    return OfEachAdapter([](Adapter& adapter) -> std::wstring {
        if (SetupDiBuildDriverInfoList(adapter.list, &adapter.device, SPDIT_COMPATDRIVER) == 0)
        {
            return L"no list: " + Number(GetLastError());
        }
        SP_DRVINFO_DATA_V2_W driver = {};
        DWORD count = 0;
        while (GetDriver(adapter, count, driver))
        {
            adapter.detail += Quoted(driver.Description);
            ++count;
        }
        const DWORD error = GetLastError();
        return error != ERROR_NO_MORE_ITEMS ? L"the list ends with " + Number(error)
               : count > 0                  ? L"at least one"
                                            : L"none";
    });
}

// The path of a package's INF; empty if there is none.
std::wstring InfOf(Adapter& adapter, SP_DRVINFO_DATA_V2_W& driver)
{
    DWORD bytes = 0;
    SetupDiGetDriverInfoDetailW(adapter.list, &adapter.device, &driver, nullptr, 0, &bytes);
    bytes = std::max<DWORD>(bytes, sizeof(SP_DRVINFO_DETAIL_DATA_W));
    const auto memory = std::make_unique<std::byte[]>(bytes);
    auto* const detail = reinterpret_cast<SP_DRVINFO_DETAIL_DATA_W*>(memory.get());
    detail->cbSize = sizeof(SP_DRVINFO_DETAIL_DATA_W);
    SetupDiGetDriverInfoDetailW(adapter.list, &adapter.device, &driver, detail, bytes, nullptr);
    return detail->InfFileName;
}

// What the driver store answers about a package's INF.
std::wstring PlaceInStore(const std::wstring& inf)
{
    wchar_t path[MAX_PATH] = {};
    DWORD needed = 0;
    // The path is used as given: Wine's has a slash, which a path with the prefix for any length cannot have.
    if (inf.size() < 4 || inf[1] != L':' || GetFileAttributesW(inf.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        return L"no file: " + inf;
    }
    if (SetupGetInfDriverStoreLocationW(inf.c_str(), nullptr, nullptr, path, MAX_PATH, &needed) == 0)
    {
        return L"error " + Number(GetLastError());
    }
    const bool isInStore = Lower(path).find(L"\\driverstore\\filerepository\\") != std::wstring::npos;
    return isInStore && Lower(path).ends_with(L".inf") && IsThere(path) ? L"an INF there" : path;
}

FACT(devices, inf_in_store)
{
    return OfEachAdapter([](Adapter& adapter) {
        SetupDiBuildDriverInfoList(adapter.list, &adapter.device, SPDIT_COMPATDRIVER);
        SP_DRVINFO_DATA_V2_W driver = {};
        std::set<std::wstring> answers;
        for (DWORD index = 0; GetDriver(adapter, index, driver); ++index)
        {
            const std::wstring inf = InfOf(adapter, driver);
            adapter.detail += inf + L" ";
            answers.insert(PlaceInStore(inf));
        }
        Need(!answers.empty(), L"no compatible driver is listed");
        return Joined({answers.begin(), answers.end()}, L" and ");
    });
}

FACT(devices, store_of_unknown)
{
    wchar_t path[MAX_PATH] = L"untouched";
    DWORD needed = 0;
    const BOOL isFound =
        SetupGetInfDriverStoreLocationW(L"C:\\TavikWindowsCheck\\none.inf", nullptr, nullptr, path, MAX_PATH, &needed);
    const DWORD error = GetLastError();
    return {std::wstring(isFound != 0 ? L"found" : L"refused") + L", buffer " +
                (std::wstring(path) == L"untouched" ? path : L"changed"),
            Number(error)};
}
}  // namespace
}  // namespace windows_check
