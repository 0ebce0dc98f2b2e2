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

// A registry call failed. code() is the Windows status in the system category, what() the message, ": " and the
// system's text for the code.
class RegKeyError : public std::system_error
{
public:
    RegKeyError(int status, const std::error_category& category, const char* message)
        : std::system_error(status, category, message)
    {
    }
    RegKeyError(int status, const std::error_category& category, const std::string& message)
        : std::system_error(status, category, message)
    {
    }
};

// Opens a key of HKEY_LOCAL_MACHINE for reading, in the view of the process (64-bit). Throws RegKeyError with
// "Unable to open registry key". Logs nothing.
RegistryKey OpenMachineKey(const std::wstring& path);

// Text of a string value up to its first NUL. An empty `subKey` means the key itself. Throws RegKeyError with
// "Unable to get registry value" when the value is missing or not a string (the system also takes an expandable string
// for one, and expands it); the status carried is that of the first read, which asks for the size. Logs nothing.
std::wstring ReadRegistryString(const RegistryKey& key, const std::wstring& subKey, const std::wstring& valueName);

// The message of a failed write of a number, at most 259 characters.
std::string FormatRegistryWriteError(const std::wstring& valueName, int data);
}  // namespace repair
