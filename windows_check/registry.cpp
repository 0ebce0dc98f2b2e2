// Unusual registry values, read by the tool's own reader, in the volatile key of this run only.
#include "base/registry.h"

#include <windows.h>

#include <string>

#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::wstring Read(const repair::RegistryKey& key, const wchar_t* name)
{
    try
    {
        return Quoted(repair::ReadRegistryString(key, L"", name));
    }
    catch (const repair::RegKeyError& error)
    {
        return L"error " + Number(error.code().value());
    }
}

repair::RegistryKey OpenKey(HKEY root, const std::wstring& path, REGSAM access)
{
    HKEY key = nullptr;
    RegOpenKeyExW(root, path.c_str(), 0, access, &key);
    return repair::RegistryKey(key);
}

// Stores the first bytes of a text as a value of this type, and reads it.
std::wstring StoreAndRead(DWORD type, const std::wstring& text, size_t bytes)
{
    const repair::RegistryKey key = OpenKey(HKEY_CURRENT_USER, ThisPc().key, KEY_ALL_ACCESS);
    RegSetValueExW(key.Get(), L"value", 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>(bytes));
    return Read(key, L"value");
}

std::wstring StoreAndRead(DWORD type, const std::wstring& text)
{
    return StoreAndRead(type, text, (text.size() + 1) * sizeof(wchar_t));
}

SHORT_FACT(registry, not_terminated, StoreAndRead(REG_SZ, L"24.20x", 10))  // a terminator behind it would be stored too
SHORT_FACT(registry, no_bytes, StoreAndRead(REG_SZ, L"", 0))
SHORT_FACT(registry, odd_bytes, StoreAndRead(REG_SZ, L"24.", 5))
SHORT_FACT(registry, embedded_nul, StoreAndRead(REG_SZ, std::wstring(L"24\0xx", 5)))

FACT(registry, long_text)
{
    const std::wstring text(100'000, L'x');
    return StoreAndRead(REG_SZ, text) == Quoted(text) ? L"whole" : L"changed";
}

FACT(registry, expandable)
{
    const std::wstring read = StoreAndRead(REG_EXPAND_SZ, L"%SystemRoot%\\x");
    return read == Quoted(Environment(L"SystemRoot") + L"\\x") ? L"expanded" : read;
}

SHORT_FACT(registry, other_types,
           Joined({StoreAndRead(REG_DWORD, L"24", 4), StoreAndRead(REG_BINARY, L"24", 4),
                   StoreAndRead(REG_MULTI_SZ, L"24"), StoreAndRead(REG_NONE, L"24")},
                  L", "))

FACT(registry, trailing_backslash)
{
    const std::wstring path = ThisPc().key + L"\\";
    const repair::RegistryKey opened = OpenKey(HKEY_CURRENT_USER, path, KEY_READ);
    HKEY created = nullptr;
    DWORD disposition = 0;
    const LSTATUS create = RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                           KEY_READ | KEY_WRITE, nullptr, &created, &disposition);
    RegCloseKey(created);
    return std::wstring(opened ? L"opened" : L"not opened") + L", made: " + Number(create) +
           (disposition == REG_OPENED_EXISTING_KEY ? L", the same key" : L", another key");
}

// A 32-bit program would be redirected to another part of the registry.
FACT(registry, view)
{
    constexpr wchar_t kPath[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
    const std::wstring usual = Read(OpenKey(HKEY_LOCAL_MACHINE, kPath, KEY_READ), L"ProgramFilesDir");
    const std::wstring wanted =
        Read(OpenKey(HKEY_LOCAL_MACHINE, kPath, KEY_READ | KEY_WOW64_64KEY), L"ProgramFilesDir");
    return usual == wanted && usual.size() > 4 ? L"the 64-bit one" : usual + L" and " + wanted;
}
}  // namespace
}  // namespace windows_check
