// Registry keys, the string reader, and the one exception type of registry failures.
#pragma once

#include <string>
#include <system_error>

#include <windows.h>

#include "base/owned.h"

namespace repair
{
struct RegistryKeyKind
{
    using Handle = HKEY;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle key) noexcept { RegCloseKey(key); }
};
// Owner of one open key.
using RegistryKey = Owned<RegistryKeyKind>;

// A failed registry call. code() is the Windows status in the system category; what() is the message, ": " and the
// system's text for the code.
class RegKeyError : public std::system_error
{
public:
    using std::system_error::system_error;  // status, category and a narrow text
};

// Opens a key of HKEY_LOCAL_MACHINE for reading, in the view of the process (64-bit). Throws RegKeyError
// "Unable to open registry key" on failure. Logs nothing.
RegistryKey OpenMachineKey(const std::wstring& path);

// Returns the text of a string value up to its first NUL. An empty `subKey` means the key itself. Throws RegKeyError
// "Unable to get registry value" if the value is missing or no string (the system accepts and expands an expandable
// string too). The error carries the status of the first read, which asks for the size. Logs nothing.
std::wstring ReadRegistryString(const RegistryKey& key, const std::wstring& subKey, const std::wstring& valueName);

// OpenMachineKey and ReadRegistryString in one step; the key is closed again. Throws what they throw.
std::wstring ReadMachineString(const std::wstring& path, const std::wstring& valueName);

// The message of a failed write of a number, at most 259 characters.
std::string FormatRegistryWriteError(const std::wstring& valueName, int data);
}  // namespace repair
