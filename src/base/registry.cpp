#include "base/registry.h"

#include <cstdio>
#include <iterator>
#include <vector>

namespace repair
{
RegistryKey OpenMachineKey(const std::wstring& path)
{
    HKEY handle = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &handle);
    if (status != ERROR_SUCCESS)
    {
        throw RegKeyError(status, std::system_category(), "Unable to open registry key");
    }
    return RegistryKey(handle);
}

std::wstring ReadRegistryString(const RegistryKey& key, const std::wstring& subKey, const std::wstring& valueName)
{
    DWORD size = 0;  // in bytes; stays untouched when the sub-key is missing
    const LSTATUS firstStatus =
        RegGetValueW(key.Get(), subKey.c_str(), valueName.c_str(), RRF_RT_REG_SZ, nullptr, nullptr, &size);

    // Two characters more: a value with an odd number of bytes is copied with its last half character and no
    // terminator.
    std::vector<wchar_t> buffer;
    if (size / sizeof(wchar_t) >= 1)
    {
        buffer.resize(size / sizeof(wchar_t) + 2);
    }
    const LSTATUS status = RegGetValueW(key.Get(), subKey.c_str(), valueName.c_str(), RRF_RT_REG_SZ, nullptr,
                                        buffer.empty() ? nullptr : buffer.data(), &size);
    if (status != ERROR_SUCCESS)
    {
        // By design the first read's status, which can be success when only the second read failed.
        throw RegKeyError(firstStatus, std::system_category(), "Unable to get registry value");
    }
    return buffer.empty() ? std::wstring() : std::wstring(buffer.data());
}

std::wstring ReadMachineString(const std::wstring& path, const std::wstring& valueName)
{
    return ReadRegistryString(OpenMachineKey(path), L"", valueName);
}

std::string FormatRegistryWriteError(const std::wstring& valueName, int data)
{
    char buffer[260] = {};
    std::snprintf(buffer, std::size(buffer), "Unable to write to registry for value = %ls data = %d.",
                  valueName.c_str(), data);
    return buffer;
}
}  // namespace repair
