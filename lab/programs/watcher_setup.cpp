#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "lab_file.h"
#include "watcher.h"

namespace watcher
{
namespace
{
std::wstring Wide(const Json& text)
{
    return standin::FromUtf8(text.get<std::string>());
}

std::vector<std::wstring> WideList(const Json& texts)
{
    std::vector<std::wstring> list;
    for (const Json& text : texts)
    {
        list.push_back(Wide(text));
    }
    return list;
}

void WriteValue(const Json& value)
{
    auto data = value["data"].get<std::vector<BYTE>>();
    const auto size = static_cast<DWORD>(data.size());
    data.resize(size + sizeof(wchar_t), 0xFF);  // or Wine may take what is there for a terminator and add it
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, Wide(value["key"]).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                        nullptr) != ERROR_SUCCESS ||
        RegSetValueExW(key, Wide(value["name"]).c_str(), 0, value["type"].get<DWORD>(), data.data(), size) !=
            ERROR_SUCCESS)
    {
        Refuse(L"cannot write the value " + Wide(value["key"]) + L"\\" + Wide(value["name"]));
    }
    RegCloseKey(key);
}

// The first window of a machine starts its desktop. On a busy host that can fail, and then no window of the tool would
// appear either.
void AwaitDesktop()
{
    constexpr DWORD kLimitMs = 3000;
    constexpr DWORD kPauseMs = 50;
    for (DWORD waited = 0; waited < kLimitMs; waited += kPauseMs)
    {
        const HWND window =
            CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
        if (window != nullptr)
        {
            DestroyWindow(window);
            return;
        }
        Sleep(kPauseMs);
    }
}
// Removes the devices at this depth below the key from the class of display adapters. This hides Wine's own adapter:
// Wine also lists devices that are absent, and recreates the list when one of its keys is deleted. Wine 10 would do so
// even then; there the stand-in for setupapi.dll hides it.
void HideDevices(HKEY parent, const wchar_t* path, int depth)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(parent, path, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS)
    {
        return;
    }
    wchar_t name[256];
    for (DWORD i = 0; depth > 0 && RegEnumKeyW(key, i, name, 256) == ERROR_SUCCESS; ++i)
    {
        HideDevices(key, name, depth - 1);
    }
    if (depth == 0)
    {
        RegDeleteValueW(key, L"ClassGUID");
    }
    RegCloseKey(key);
}
}  // namespace

void Refuse(const std::wstring& reason)
{
    std::fprintf(stderr, "watcher: %ls\n", reason.c_str());
    std::exit(90);
}

Orders ReadOrders(const wchar_t* path)
{
    std::ifstream file{std::filesystem::path(path)};
    const Json given = Json::parse(file, nullptr, false);
    if (given.is_discarded())
    {
        Refuse(std::wstring(path) + L" is not JSON");
    }
    Orders orders;
    orders.program = Wide(given["program"]);
    orders.arguments = Wide(given["arguments"]);
    orders.directory = Wide(given["directory"]);
    orders.report = Wide(given["report"]);
    orders.pictures = Wide(given["pictures"]);
    orders.start = WideList(given["start"]);
    orders.held = WideList(given["held"]);
    orders.shared = WideList(given["shared"]);
    orders.registry = given["registry"];
    for (const Json& when : given["when"])
    {
        orders.whens.push_back({Wide(when["trigger"]), Wide(when["action"])});
    }
    if (!given["then"].is_null())
    {
        orders.then = Wide(given["then"]);
    }
    orders.crowd = given["crowd"];
    orders.timeoutMs = given["timeout"];
    orders.holdMs = given["hold"];
    return orders;
}

void SetUpDevices(const Json& registry)
{
    AwaitDesktop();
    DISPLAY_DEVICEW device{};
    device.cb = sizeof device;
    EnumDisplayDevicesW(nullptr, 0, &device, 0);
    HKEY controlSet = nullptr;  // its own name; Wine 8 has the current one only
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"System\\ControlSet001\\Enum", 0, KEY_READ, &controlSet) == ERROR_SUCCESS)
    {
        RegCloseKey(controlSet);
    }
    else
    {
        HideDevices(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Enum\\PCI", 2);
    }
    for (const Json& value : registry)
    {
        WriteValue(value);
    }
}
}  // namespace watcher
