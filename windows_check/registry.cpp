// Unusual registry values, read by the tool's own reader, in the volatile key of this run only.
#include "base/registry.h"

#include <windows.h>

#include <vector>

#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
using Bytes = std::vector<BYTE>;

Bytes Text(const std::wstring& text, bool isTerminated = true)
{
    const BYTE* const start = reinterpret_cast<const BYTE*>(text.c_str());
    return Bytes(start, start + (text.size() + (isTerminated ? 1 : 0)) * sizeof(wchar_t));
}

repair::RegistryKey OwnKey()
{
    HKEY key = nullptr;
    RegOpenKeyExW(HKEY_CURRENT_USER, ThisPc().key.c_str(), 0, KEY_ALL_ACCESS, &key);
    return repair::RegistryKey(key);
}

void Store(const repair::RegistryKey& key, const wchar_t* name, DWORD type, const Bytes& data)
{
    RegSetValueExW(key.Get(), name, 0, type, data.data(), static_cast<DWORD>(data.size()));
}

std::wstring Read(const repair::RegistryKey& key, const wchar_t* name, const wchar_t* subKey = L"")
{
    try
    {
        return Quoted(repair::ReadRegistryString(key, subKey, name));
    }
    catch (const repair::RegKeyError& error)
    {
        return L"error " + Number(error.code().value());
    }
}

std::wstring StoreAndRead(DWORD type, const Bytes& data)
{
    const repair::RegistryKey key = OwnKey();
    Store(key, L"value", type, data);
    return Read(key, L"value");
}

SHORT_FACT(registry, terminated, Saw(StoreAndRead(REG_SZ, Text(L"24.20"))))
SHORT_FACT(registry, not_terminated, Saw(StoreAndRead(REG_SZ, Text(L"24.20", false))))
SHORT_FACT(registry, empty, Saw(StoreAndRead(REG_SZ, Text(L""))))
SHORT_FACT(registry, no_bytes, Saw(StoreAndRead(REG_SZ, {})))

FACT(registry, odd_bytes)
{
    Bytes data = Text(L"24.", false);
    data.pop_back();
    return Saw(StoreAndRead(REG_SZ, data));
}

SHORT_FACT(registry, embedded_nul, Saw(StoreAndRead(REG_SZ, Text(std::wstring(L"24\0xx", 5)))))

FACT(registry, long_text)
{
    const repair::RegistryKey key = OwnKey();
    const std::wstring text(100'000, L'x');
    Store(key, L"long", REG_SZ, Text(text));
    return Saw(repair::ReadRegistryString(key, L"", L"long") == text ? L"whole" : L"changed");
}

FACT(registry, expandable)
{
    wchar_t expected[MAX_PATH] = {};
    ExpandEnvironmentStringsW(L"%SystemRoot%\\x", expected, MAX_PATH);
    const std::wstring read = StoreAndRead(REG_EXPAND_SZ, Text(L"%SystemRoot%\\x"));
    return Saw(read == Quoted(expected) ? L"expanded" : read);
}

FACT(registry, other_types)
{
    return Saw(Joined({StoreAndRead(REG_DWORD, {1, 0, 0, 0}), StoreAndRead(REG_BINARY, {50, 0, 0, 0}),
                       StoreAndRead(REG_MULTI_SZ, Text(std::wstring(L"a\0", 2))), StoreAndRead(REG_NONE, Text(L"a"))},
                      L", "));
}

SHORT_FACT(registry, missing_value, Saw(Read(OwnKey(), L"none")))

FACT(registry, missing_sub_key)
{
    const repair::RegistryKey key = OwnKey();
    DWORD size = 77;
    const LSTATUS status = RegGetValueW(key.Get(), L"none", L"none", RRF_RT_REG_SZ, nullptr, nullptr, &size);
    return Saw(Number(status) + (size == 77 ? L", size untouched" : L", size " + Number(size)),
               L"the reader: " + Read(key, L"none", L"none"));
}

FACT(registry, size_query)
{
    const repair::RegistryKey key = OwnKey();
    Store(key, L"size", REG_SZ, Text(L"24.20"));
    DWORD size = 0;
    const LSTATUS status = RegGetValueW(key.Get(), L"", L"size", RRF_RT_REG_SZ, nullptr, nullptr, &size);
    return Saw(Number(status) + L", " + Number(size) + L" bytes");
}

FACT(registry, empty_sub_key)
{
    const repair::RegistryKey key = OwnKey();
    Store(key, L"sub", REG_SZ, Text(L"a"));
    wchar_t text[8] = {};
    DWORD size = sizeof(text);
    const LSTATUS withNull = RegGetValueW(key.Get(), nullptr, L"sub", RRF_RT_REG_SZ, nullptr, text, &size);
    size = sizeof(text);
    const LSTATUS withEmpty = RegGetValueW(key.Get(), L"", L"sub", RRF_RT_REG_SZ, nullptr, text, &size);
    return Saw(Number(withNull) + L" and " + Number(withEmpty));
}

FACT(registry, trailing_backslash)
{
    const std::wstring path = ThisPc().key + L"\\";
    HKEY opened = nullptr;
    const LSTATUS open = RegOpenKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &opened);
    HKEY created = nullptr;
    DWORD disposition = 0;
    const LSTATUS create = RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                           KEY_READ | KEY_WRITE, nullptr, &created, &disposition);
    RegCloseKey(opened);
    RegCloseKey(created);
    return Saw(Number(open) + L" and " + Number(create) +
               (disposition == REG_OPENED_EXISTING_KEY ? L", the same key" : L", another key"));
}

FACT(registry, letter_case)
{
    const repair::RegistryKey key = OwnKey();
    Store(key, L"LetterCase", REG_SZ, Text(L"a"));
    return Saw(Read(key, L"letterCASE"));
}

FACT(registry, read_only_handle)
{
    HKEY key = nullptr;
    RegOpenKeyExW(HKEY_CURRENT_USER, ThisPc().key.c_str(), 0, KEY_READ, &key);
    const repair::RegistryKey owner(key);
    const DWORD one = 1;
    return Saw(Number(RegSetValueExW(key, L"refused", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), sizeof(one))));
}

FACT(registry, missing_machine_key)
{
    try
    {
        repair::OpenMachineKey(L"SOFTWARE\\TavikWindowsCheck\\none");
    }
    catch (const repair::RegKeyError& error)
    {
        return Saw(Number(error.code().value()));
    }
    return Saw(L"opened");
}

// A 32-bit program would be redirected to another part of the registry.
FACT(registry, view)
{
    constexpr wchar_t kPath[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
    std::wstring values[2];
    for (const bool isExplicit : {false, true})
    {
        HKEY key = nullptr;
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPath, 0, KEY_READ | (isExplicit ? KEY_WOW64_64KEY : 0), &key);
        const repair::RegistryKey owner(key);
        values[isExplicit ? 1 : 0] = Read(owner, L"ProgramFilesDir");
    }
    return Saw(values[0] == values[1] && values[0].size() > 4 ? L"the 64-bit one" : values[0] + L" and " + values[1]);
}
}  // namespace
}  // namespace windows_check
