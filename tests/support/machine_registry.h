// Redirects HKEY_LOCAL_MACHINE of this process to a key that is empty at first and removed at the end.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace repair
{
inline constexpr wchar_t kInstallHaldenKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\";

class MachineRegistry
{
public:
    MachineRegistry()
    {
        const HKEY key = Create(HKEY_CURRENT_USER, name_);
        EXPECT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, key), ERROR_SUCCESS);
        RegCloseKey(key);
    }
    ~MachineRegistry()
    {
        RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        RegDeleteTreeW(HKEY_CURRENT_USER, name_.c_str());
    }
    MachineRegistry(const MachineRegistry&) = delete;
    MachineRegistry& operator=(const MachineRegistry&) = delete;

    static void CreateKey(const std::wstring& path) { RegCloseKey(Create(HKEY_LOCAL_MACHINE, path)); }

    // The bytes exactly as given, with or without a terminator. Creates the key.
    static void SetValue(const std::wstring& path, const std::wstring& name, DWORD type, std::vector<BYTE> data)
    {
        const HKEY key = Create(HKEY_LOCAL_MACHINE, path);
        const auto size = static_cast<DWORD>(data.size());
        data.insert(data.end(), 2, 'x');  // a zero behind a text would be stored as its terminator
        EXPECT_EQ(RegSetValueExW(key, name.c_str(), 0, type, data.data(), size), ERROR_SUCCESS);
        RegCloseKey(key);
    }

    static void SetString(const std::wstring& path, const std::wstring& name, const std::wstring& text)
    {
        const BYTE* const bytes = reinterpret_cast<const BYTE*>(text.c_str());
        SetValue(path, name, REG_SZ, std::vector<BYTE>(bytes, bytes + (text.size() + 1) * sizeof(wchar_t)));
    }

private:
    static HKEY Create(HKEY root, const std::wstring& path)
    {
        HKEY key = nullptr;
        EXPECT_EQ(RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
                  ERROR_SUCCESS);
        return key;
    }

    const std::wstring name_ = L"Software\\TavikTests\\" + std::to_wstring(GetCurrentProcessId());
};
}  // namespace repair
