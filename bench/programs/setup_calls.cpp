#include "setup_calls.h"

#include <cstring>
#include <cwchar>
#include <memory>
#include <string_view>

#include "inventory/setup_api.h"

namespace bench
{
namespace
{
constexpr GUID kDisplayClass = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr DEVPROPKEY kProblemCode = {{0x4340A6C5, 0x93FA, 0x4706, {0x97, 0x2C, 0x7B, 0x64, 0x80, 0x08, 0xA5, 0xA7}}, 3};
constexpr DWORD kLineCharacters = 2064;

void AskText(HDEVINFO devices, SP_DEVINFO_DATA& device, DWORD property)
{
    DWORD bytes = 0;
    SetupDiGetDeviceRegistryPropertyW(devices, &device, property, nullptr, nullptr, 0, &bytes);
    const auto text = std::make_unique<BYTE[]>(bytes + 2);
    SetupDiGetDeviceRegistryPropertyW(devices, &device, property, nullptr, text.get(), bytes, nullptr);
}

void WalkInf(const std::wstring& path, const std::vector<std::wstring>& names, wchar_t* text)
{
    UINT errorLine = 0;
    const HINF inf = SetupOpenInfFileW(path.c_str(), nullptr, INF_STYLE_WIN4, &errorLine);
    if (inf == INVALID_HANDLE_VALUE)
        return;
    for (const std::wstring& name : names)
    {
        INFCONTEXT line = {};
        INFCONTEXT next = {};
        for (BOOL found = SetupFindFirstLineW(inf, name.c_str(), nullptr, &line); found != 0; line = next)
        {
            SetupGetLineTextW(&line, nullptr, nullptr, nullptr, text, kLineCharacters, nullptr);
            found = SetupFindNextLine(&line, &next);
        }
    }
    SetupCloseInfFile(inf);
}

unsigned AskPackages(HDEVINFO devices, SP_DEVINFO_DATA& device, const SectionNames& names, wchar_t* text)
{
    unsigned infs = 0;
    SetupDiBuildDriverInfoList(devices, &device, SPDIT_COMPATDRIVER);
    SP_DRVINFO_DATA_V2_W driver = {};
    driver.cbSize = sizeof(driver);
    for (DWORD index = 0; SetupDiEnumDriverInfoW(devices, &device, SPDIT_COMPATDRIVER, index, &driver) != 0; ++index)
    {
        DWORD bytes = 0;
        SetupDiGetDriverInfoDetailW(devices, &device, &driver, nullptr, 0, &bytes);
        const auto memory = std::make_unique<BYTE[]>(bytes + sizeof(SP_DRVINFO_DETAIL_DATA_W));
        auto* const detail = reinterpret_cast<SP_DRVINFO_DETAIL_DATA_W*>(memory.get());
        detail->cbSize = sizeof(SP_DRVINFO_DETAIL_DATA_W);
        SetupDiGetDriverInfoDetailW(devices, &device, &driver, detail, bytes, nullptr);
        wchar_t place[MAX_PATH] = {};
        SetupGetInfDriverStoreLocationW(detail->InfFileName, nullptr, nullptr, place, MAX_PATH, nullptr);
        WalkInf(place, names(place), text);
        ++infs;
    }
    return infs;
}
}  // namespace

std::vector<std::wstring> ReadSectionNames(const std::wstring& inf)
{
    std::vector<std::wstring> names;
    const HANDLE file = CreateFileW(inf.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD size = file == INVALID_HANDLE_VALUE ? 0 : GetFileSize(file, nullptr);
    const auto data = std::make_unique<char[]>(size + 1);
    DWORD read = 0;
    ReadFile(file, data.get(), size, &read, nullptr);
    CloseHandle(file);
    for (const char* at = data.get(); *at != '\0';)
    {
        const char* const end = at + std::strcspn(at, "\r\n");
        if (*at == '[' && end[-1] == ']')
            names.emplace_back(at + 1, end - 1);
        at = end + std::strspn(end, "\r\n");
    }
    return names;
}

unsigned MakeSetupCalls(const SectionNames& names)
{
    unsigned infs = 0;
    const HDEVINFO devices = SetupDiGetClassDevsW(&kDisplayClass, nullptr, nullptr, DIGCF_PRESENT);
    const auto text = std::make_unique<wchar_t[]>(kLineCharacters);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices, index, &device) != 0; ++index)
    {
        wchar_t id[520] = {};
        SetupDiGetDeviceInstanceIdW(devices, &device, id, 520, nullptr);
        AskText(devices, device, SPDRP_DEVICEDESC);
        if (std::wstring_view(id).find(L"VEN_1E7D") == std::wstring_view::npos)
            continue;
        AskText(devices, device, SPDRP_DRIVER);
        DEVPROPTYPE type = 0;
        DWORD problem = 0;
        SetupDiGetDevicePropertyW(devices, &device, &kProblemCode, &type, reinterpret_cast<BYTE*>(&problem),
                                  sizeof(problem), nullptr, 0);
        infs += AskPackages(devices, device, names, text.get());
    }
    SetupDiDestroyDeviceInfoList(devices);
    return infs;
}
}  // namespace bench
