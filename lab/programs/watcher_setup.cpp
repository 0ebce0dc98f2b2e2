#include "watcher_setup.h"

#include <windows.h>

#include <sddl.h>

#include <cstdio>
#include <cstdlib>

#include "lab_file.h"

namespace watcher
{
namespace
{
[[noreturn]] void Refuse(const std::wstring& what)
{
    std::fprintf(stderr, "watcher: %ls\n", what.c_str());
    std::exit(90);
}

std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator)
{
    std::vector<std::wstring> parts;
    size_t from = 0;
    for (size_t to = 0; (to = text.find(separator, from)) != std::wstring::npos; from = to + 1)
        parts.push_back(text.substr(from, to - from));
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
        Refuse(L"cannot create the key " + parts[0]);
    if (!parts[2].empty())  // otherwise just the key
    {
        std::vector<BYTE> data;
        for (size_t i = 0; i + 1 < parts[3].size(); i += 2)
            data.push_back(static_cast<BYTE>(std::wcstoul(parts[3].substr(i, 2).c_str(), nullptr, 16)));
        const DWORD type = std::wcstoul(parts[2].c_str(), nullptr, 10);
        if (RegSetValueExW(key, parts[1].c_str(), 0, type, data.data(), static_cast<DWORD>(data.size())) !=
            ERROR_SUCCESS)
            Refuse(L"cannot write the value " + line);
    }
    RegCloseKey(key);
}

// The first window of a machine starts its desktop. On a busy host that can fail, and then no window of the tool would
// appear either.
void AwaitDesktop()
{
    constexpr DWORD kPatienceMs = 3000;
    constexpr DWORD kPauseMs = 50;
    for (DWORD waited = 0; waited < kPatienceMs; waited += kPauseMs)
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
        return;
    wchar_t device[256];
    for (DWORD i = 0; RegEnumKeyW(bus, i, device, 256) == ERROR_SUCCESS; ++i)
    {
        HKEY deviceKey = nullptr;
        if (RegOpenKeyExW(bus, device, 0, KEY_READ, &deviceKey) != ERROR_SUCCESS)
            continue;
        wchar_t instance[256];
        for (DWORD j = 0; RegEnumKeyW(deviceKey, j, instance, 256) == ERROR_SUCCESS; ++j)
        {
            HKEY key = nullptr;
            if (RegOpenKeyExW(deviceKey, instance, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS)
                continue;
            RegDeleteValueW(key, L"ClassGUID");
            RegCloseKey(key);
        }
        RegCloseKey(deviceKey);
    }
    RegCloseKey(bus);
}
}  // namespace

Orders ReadOrders(const wchar_t* path)
{
    Orders orders;
    for (const standin::Line& line : standin::ReadLines(path))
    {
        const size_t equals = line.text.find(L'=');
        if (equals == std::wstring::npos)
            Refuse(L"not understood: " + line.text);
        const std::wstring name = standin::Trim(std::wstring_view(line.text).substr(0, equals));
        const std::wstring value = standin::Trim(std::wstring_view(line.text).substr(equals + 1));
        if (name == L"program")
            orders.program = value;
        else if (name == L"arguments")
            orders.arguments = value;
        else if (name == L"directory")
            orders.directory = value;
        else if (name == L"report")
            orders.report = value;
        else if (name == L"pictures")
            orders.pictures = value;
        else if (name == L"start")
            orders.start.push_back(value);
        else if (name == L"held")
            orders.held.push_back(value);
        else if (name == L"shared")
            orders.shared.push_back(value);
        else if (name == L"registry")
            orders.registry.push_back(value);
        else if (name == L"timeout")
            orders.timeoutMs = std::wcstoul(value.c_str(), nullptr, 10);
        else if (name == L"hold")
            orders.holdMs = std::wcstoul(value.c_str(), nullptr, 10);
        else if (name == L"crowd")
            orders.crowd = std::wcstoul(value.c_str(), nullptr, 10);
        else if (name == L"then")
            orders.then = value;
        else if (name == L"own-adapter")
            orders.showOwnAdapter = value == L"shown";
        else if (name == L"when")
        {
            const size_t colon = value.find(L" : ");
            if (colon == std::wstring::npos)
                Refuse(L"not understood: " + line.text);
            orders.whens.push_back(
                {standin::Trim(value.substr(0, colon)), standin::Trim(value.substr(colon + 3)), false});
        }
        else
            Refuse(L"not understood: " + line.text);
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
        HideOwnAdapters();
    for (const std::wstring& line : orders.registry)
        WriteValue(line);
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
            continue;  // gone, or not shared yet: another look comes
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
        return false;
    PSECURITY_DESCRIPTOR rights = nullptr;
    const bool isDenied = ConvertStringSecurityDescriptorToSecurityDescriptorW(
                              L"D:(D;;0x2;;;WD)(A;;GA;;;WD)", SDDL_REVISION_1, &rights, nullptr) != 0 &&
                          RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, rights) == ERROR_SUCCESS;
    LocalFree(rights);
    RegCloseKey(key);
    return isDenied;
}
}  // namespace watcher
