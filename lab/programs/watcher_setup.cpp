#include "watcher_setup.h"

#include <windows.h>

#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <map>

#include "lab_file.h"

namespace watcher
{
namespace
{
std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator)
{
    std::vector<std::wstring> parts;
    size_t from = 0;
    for (size_t to = 0; (to = text.find(separator, from)) != std::wstring::npos; from = to + 1)
    {
        parts.push_back(text.substr(from, to - from));
    }
    parts.push_back(text.substr(from));
    return parts;
}

void WriteValue(const std::wstring& line)
{
    std::vector<std::wstring> parts = Split(line, L'\t');
    parts.resize(4);
    HKEY key = nullptr;
    const LSTATUS opened =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, parts[0].c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (opened != ERROR_SUCCESS)
    {
        Refuse(L"cannot create the key " + parts[0]);
    }
    if (!parts[2].empty())  // otherwise just the key
    {
        std::vector<BYTE> data;
        for (size_t i = 0; i + 1 < parts[3].size(); i += 2)
        {
            data.push_back(static_cast<BYTE>(std::wcstoul(parts[3].substr(i, 2).c_str(), nullptr, 16)));
        }
        const DWORD type = std::wcstoul(parts[2].c_str(), nullptr, 10);
        if (RegSetValueExW(key, parts[1].c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())) !=
            ERROR_SUCCESS)
        {
            Refuse(L"cannot write the value " + line);
        }
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

// Takes them out of the class of display adapters. Wine lists absent devices as well, so nothing milder hides one.
void HideOwnAdapters()
{
    HKEY bus = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"System\\CurrentControlSet\\Enum\\PCI", 0, KEY_READ, &bus) != ERROR_SUCCESS)
    {
        return;
    }
    wchar_t device[256];
    for (DWORD i = 0; RegEnumKeyW(bus, i, device, 256) == ERROR_SUCCESS; ++i)
    {
        HKEY deviceKey = nullptr;
        if (RegOpenKeyExW(bus, device, 0, KEY_READ, &deviceKey) != ERROR_SUCCESS)
        {
            continue;
        }
        wchar_t instance[256];
        for (DWORD j = 0; RegEnumKeyW(deviceKey, j, instance, 256) == ERROR_SUCCESS; ++j)
        {
            HKEY key = nullptr;
            if (RegOpenKeyExW(deviceKey, instance, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS)
            {
                continue;
            }
            RegDeleteValueW(key, L"ClassGUID");
            RegCloseKey(key);
        }
        RegCloseKey(deviceKey);
    }
    RegCloseKey(bus);
}
}  // namespace

void Refuse(const std::wstring& reason)
{
    std::fprintf(stderr, "watcher: %ls\n", reason.c_str());
    std::exit(90);
}

Orders ReadOrders(const wchar_t* path)
{
    const std::map<std::wstring, std::wstring Orders::*> texts = {{L"program", &Orders::program},
                                                                  {L"arguments", &Orders::arguments},
                                                                  {L"directory", &Orders::directory},
                                                                  {L"report", &Orders::report},
                                                                  {L"pictures", &Orders::pictures}};
    const std::map<std::wstring, std::vector<std::wstring> Orders::*> lists = {{L"start", &Orders::start},
                                                                               {L"held", &Orders::held},
                                                                               {L"shared", &Orders::shared},
                                                                               {L"registry", &Orders::registry}};
    const std::map<std::wstring, unsigned long Orders::*> numbers = {
        {L"timeout", &Orders::timeoutMs}, {L"hold", &Orders::holdMs}, {L"crowd", &Orders::crowd}};
    Orders orders;
    for (const standin::Line& line : standin::ReadLines(path))
    {
        const size_t equals = line.text.find(L'=');
        const std::wstring name = equals == std::wstring::npos ? L"" : standin::Trim(line.text.substr(0, equals));
        const std::wstring value = standin::Trim(line.text.substr(equals + 1));
        const size_t colon = value.find(L" : ");
        if (const auto text = texts.find(name); text != texts.end())
        {
            orders.*text->second = value;
        }
        else if (const auto list = lists.find(name); list != lists.end())
        {
            (orders.*list->second).push_back(value);
        }
        else if (const auto number = numbers.find(name); number != numbers.end())
        {
            orders.*number->second = std::wcstoul(value.c_str(), nullptr, 10);
        }
        else if (name == L"then")
        {
            orders.then = value;
        }
        else if (name == L"own-adapter")
        {
            orders.showOwnAdapter = value == L"shown";
        }
        else if (name == L"when" && colon != std::wstring::npos)
        {
            orders.whens.push_back({standin::Trim(value.substr(0, colon)), standin::Trim(value.substr(colon + 3))});
        }
        else
        {
            Refuse(L"not understood: " + line.text);
        }
    }
    return orders;
}

void SetUpDevices(const Orders& orders)
{
    AwaitDesktop();
    DISPLAY_DEVICEW device{};
    device.cb = sizeof device;
    EnumDisplayDevicesW(nullptr, 0, &device, 0);
    if (!orders.showOwnAdapter)
    {
        HideOwnAdapters();
    }
    for (const std::wstring& line : orders.registry)
    {
        WriteValue(line);
    }
}

bool LogContains(const std::wstring& text)
{
    const std::wstring folder = L"C:\\Program Files\\Tavik\\MIM\\Log\\";
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW((folder + L"*.log").c_str(), &found);
    bool contains = false;
    for (BOOL more = search != INVALID_HANDLE_VALUE; more != 0 && !contains; more = FindNextFileW(search, &found))
    {
        const HANDLE file = CreateFileW((folder + found.cFileName).c_str(), GENERIC_READ,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE)
        {
            continue;  // gone, or not shared yet: it is read again soon
        }
        std::wstring log(GetFileSize(file, nullptr) / sizeof(wchar_t), L'\0');
        DWORD count = 0;
        ReadFile(file, log.data(), static_cast<DWORD>(log.size() * sizeof(wchar_t)), &count, nullptr);
        CloseHandle(file);
        contains = log.find(text) != log.npos;
    }
    FindClose(search);
    return contains;
}

bool DenyKey(const std::wstring& path)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, WRITE_DAC, &key) != ERROR_SUCCESS)
    {
        return false;
    }
    PSECURITY_DESCRIPTOR rights = nullptr;
    const bool isDenied = ConvertStringSecurityDescriptorToSecurityDescriptorW(
                              L"D:(D;;0x2;;;WD)(A;;GA;;;WD)", SDDL_REVISION_1, &rights, nullptr) != 0 &&
                          RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, rights) == ERROR_SUCCESS;
    LocalFree(rights);
    RegCloseKey(key);
    return isDenied;
}
}  // namespace watcher
