#include "windows_check/own_things.h"

#include <windows.h>

#include <stdexcept>
#include <vector>

#include "windows_check/check.h"

namespace windows_check
{
namespace
{
// With the prefix paths may be of any length.
std::wstring Unlimited(const std::wstring& path)
{
    return L"\\\\?\\" + path;
}

bool IsThere(const std::wstring& path)
{
    return GetFileAttributesW(Unlimited(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

// Not the product's own function, which is among the things that are looked at.
void RemoveTree(const std::wstring& path, DWORD attributes)
{
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0)
    {
        SetFileAttributesW(Unlimited(path).c_str(), attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
    {
        DeleteFileW(Unlimited(path).c_str());
        return;
    }
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0)
    {
        std::vector<WIN32_FIND_DATAW> entries;
        WIN32_FIND_DATAW entry = {};
        const HANDLE search = FindFirstFileW(Unlimited(path + L"\\*").c_str(), &entry);
        if (search != INVALID_HANDLE_VALUE)
        {
            do
            {
                const std::wstring name = entry.cFileName;
                if (name != L"." && name != L"..")
                {
                    entries.push_back(entry);
                }
            } while (FindNextFileW(search, &entry) != 0);
            FindClose(search);
        }
        for (const WIN32_FIND_DATAW& below : entries)
        {
            RemoveTree(path + L"\\" + below.cFileName, below.dwFileAttributes);
        }
    }
    RemoveDirectoryW(Unlimited(path).c_str());
}
}  // namespace

Machine& ThisMachine()
{
    static Machine machine;
    return machine;
}

bool MakeOwnThings()
{
    const std::wstring name = L"TavikWindowsCheck-" + std::to_wstring(GetCurrentProcessId());
    wchar_t temporary[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, temporary);
    wchar_t whole[MAX_PATH + 1] = {};
    // The long form: the temporary folder may be given by short names, which would spoil comparisons.
    const DWORD length = GetLongPathNameW(temporary, whole, MAX_PATH + 1);
    const std::wstring folder = std::wstring(length > 0 && length <= MAX_PATH ? whole : temporary) + name;
    if (CreateDirectoryW(folder.c_str(), nullptr) == 0)
    {
        return false;
    }
    ThisMachine().folder = folder;
    const std::wstring key = L"Software\\" + name;
    HKEY made = nullptr;
    if (RegCreateKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &made,
                        nullptr) != ERROR_SUCCESS)
    {
        return false;
    }
    RegCloseKey(made);
    ThisMachine().key = key;
    return true;
}

bool RemoveOwnThings()
{
    const Machine& machine = ThisMachine();
    bool isLeft = false;
    if (!machine.folder.empty())
    {
        // A program that has just ended, or a virus scanner, may hold a file for a moment.
        for (int attempt = 0; attempt < 50 && IsThere(machine.folder); ++attempt)
        {
            Sleep(attempt == 0 ? 0 : 100);
            RemoveTree(machine.folder, FILE_ATTRIBUTE_DIRECTORY);
        }
        isLeft = IsThere(machine.folder);
    }
    if (!machine.key.empty())
    {
        const LSTATUS status = RegDeleteTreeW(HKEY_CURRENT_USER, machine.key.c_str());
        isLeft = isLeft || (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND);
    }
    return !isLeft;
}

std::wstring MakeFolder(const std::wstring& name)
{
    const std::wstring path = ThisMachine().folder + L"\\" + name;
    if (CreateDirectoryW(path.c_str(), nullptr) == 0 && GetLastError() != ERROR_ALREADY_EXISTS)
    {
        throw std::runtime_error("a folder for the check cannot be made: " + std::to_string(GetLastError()));
    }
    return path;
}

std::wstring WriteBytes(const std::wstring& path, std::string_view bytes)
{
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    if (file == INVALID_HANDLE_VALUE ||
        WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) == 0)
    {
        const DWORD error = GetLastError();
        CloseHandle(file);
        throw std::runtime_error("a file for the check cannot be written: " + std::to_string(error));
    }
    CloseHandle(file);
    return path;
}
}  // namespace windows_check
