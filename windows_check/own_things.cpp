#include "windows_check/own_things.h"

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <stdexcept>
#include <vector>

#include "base/handles.h"
#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
// Open while the program runs, so the own folder cannot be replaced.
std::atomic<HANDLE> folderInUse = INVALID_HANDLE_VALUE;

// With this prefix a path may have any length.
std::wstring Unlimited(const std::wstring& path)
{
    return L"\\\\?\\" + path;
}

// Does not use the product's function, which is itself checked.
void RemoveTree(const std::wstring& path, DWORD attributes)  // NOLINT(misc-no-recursion)
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
                entries.push_back(entry);
            } while (FindNextFileW(search, &entry) != 0);
            FindClose(search);
        }
        for (const WIN32_FIND_DATAW& below : entries)
        {
            if (const std::wstring name = below.cFileName; name != L"." && name != L"..")
            {
                RemoveTree(std::wstring(path).append(L"\\").append(name), below.dwFileAttributes);
            }
        }
    }
    RemoveDirectoryW(Unlimited(path).c_str());
}

// The account's identifier; empty if it cannot be read.
std::vector<BYTE> SidOfAccount()
{
    std::vector<BYTE> user = TokenInformation(TokenUser);
    std::vector<BYTE> sid(SECURITY_MAX_SID_SIZE);
    const bool isKnown = !user.empty() && CopySid(SECURITY_MAX_SID_SIZE, sid.data(),
                                                  reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid) != FALSE;
    return isKnown ? sid : std::vector<BYTE>();
}

// Full control, also below, for the account, administrators and the system, and nothing inherited. Null if the list
// cannot be made.
repair::LocalMemory ClosedToOthers(std::vector<BYTE>& account)
{
    wchar_t* text = nullptr;
    if (account.empty() || ConvertSidToStringSidW(account.data(), &text) == 0)
    {
        return {};
    }
    const repair::LocalMemory owner(text);
    const std::wstring list = L"D:P(A;OICI;FA;;;" + std::wstring(text) + L")(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)";
    void* descriptor = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(list.c_str(), SDDL_REVISION_1, &descriptor, nullptr);
    return repair::LocalMemory(descriptor);
}

bool IsTrusted(void* sid, std::vector<BYTE>& account)
{
    return EqualSid(sid, account.data()) != 0 || IsWellKnownSid(sid, WinBuiltinAdministratorsSid) != 0 ||
           IsWellKnownSid(sid, WinLocalSystemSid) != 0;
}

// Reads the rights from the folder itself: some disks keep none, and folders on servers may keep different ones.
bool IsClosedToOthers(HANDLE folder, std::vector<BYTE>& account)
{
    // NOLINTNEXTLINE(misc-redundant-expression): the rights overlap
    constexpr DWORD kReading = FILE_GENERIC_READ | FILE_GENERIC_EXECUTE | GENERIC_READ | GENERIC_EXECUTE;
    void* owner = nullptr;
    ACL* list = nullptr;
    void* descriptor = nullptr;
    const DWORD result = GetSecurityInfo(folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                         &owner, nullptr, &list, nullptr, &descriptor);
    const repair::LocalMemory memory(descriptor);
    if (result != ERROR_SUCCESS || list == nullptr || owner == nullptr || !IsTrusted(owner, account))
    {
        return false;
    }
    for (WORD i = 0; i < list->AceCount; ++i)
    {
        void* found = nullptr;
        if (GetAce(list, i, &found) == 0)
        {
            return false;
        }
        auto* const entry = static_cast<ACCESS_ALLOWED_ACE*>(found);
        const bool isRefusal = entry->Header.AceType == ACCESS_DENIED_ACE_TYPE;
        const bool isPlain = entry->Header.AceType == ACCESS_ALLOWED_ACE_TYPE;
        if (!isRefusal && (!isPlain || ((entry->Mask & ~kReading) != 0 && !IsTrusted(&entry->SidStart, account))))
        {
            return false;
        }
    }
    return true;
}

// True when the folder is new.
bool MakeOwnFolder(const std::wstring& folder)
{
    std::vector<BYTE> account = SidOfAccount();
    const repair::LocalMemory descriptor = ClosedToOthers(account);
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), descriptor.Get(), FALSE};
    if (CreateDirectoryW(folder.c_str(), descriptor ? &attributes : nullptr) == 0)
    {
        return false;
    }
    const HANDLE opened =
        CreateFileW(folder.c_str(), FILE_LIST_DIRECTORY | READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    folderInUse = opened;
    ThisPc().isFolderOurs = descriptor && opened != INVALID_HANDLE_VALUE && IsClosedToOthers(opened, account);
    return true;
}
}  // namespace

std::vector<BYTE> TokenInformation(TOKEN_INFORMATION_CLASS what)
{
    HANDLE token = nullptr;
    DWORD size = 0;
    std::vector<BYTE> information(sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE);
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    const BOOL isRead =
        GetTokenInformation(token, what, information.data(), static_cast<DWORD>(information.size()), &size);
    CloseHandle(token);
    if (isRead == FALSE)
    {
        information.clear();
    }
    return information;  // moved, not copied: it may contain pointers into itself
}

Pc& ThisPc()
{
    static Pc pc;
    return pc;
}

bool MakeOwnThings()
{
    const std::wstring name = L"TavikWindowsCheck-" + std::to_wstring(GetCurrentProcessId());
    const std::wstring temporary = Filled([](wchar_t* path, DWORD size) { GetTempPathW(size, path); });
    // The long form, because short names would break comparisons of paths.
    const std::wstring whole =
        Filled([&](wchar_t* path, DWORD size) { GetLongPathNameW(temporary.c_str(), path, size); });
    const std::wstring folder = (whole.empty() ? temporary : whole) + name;
    if (!MakeOwnFolder(folder))
    {
        return false;
    }
    ThisPc().folder = folder;
    const std::wstring key = L"Software\\" + name;
    HKEY made = nullptr;
    if (RegCreateKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &made,
                        nullptr) != ERROR_SUCCESS)
    {
        return false;
    }
    RegCloseKey(made);
    ThisPc().key = key;
    return true;
}

bool RemoveOwnThings()
{
    const Pc& pc = ThisPc();
    bool isLeft = false;
    if (!pc.folder.empty())
    {
        if (const HANDLE folder = folderInUse.exchange(INVALID_HANDLE_VALUE); folder != INVALID_HANDLE_VALUE)
        {
            CloseHandle(folder);
        }
        // A program that has just ended, or a virus scanner, may hold a file for a moment.
        for (int attempt = 0; attempt < 50 && IsThere(pc.folder); ++attempt)
        {
            Sleep(attempt == 0 ? 0 : 100);
            RemoveTree(pc.folder, FILE_ATTRIBUTE_DIRECTORY);
        }
        isLeft = IsThere(pc.folder);
    }
    if (!pc.key.empty())
    {
        const LSTATUS status = RegDeleteTreeW(HKEY_CURRENT_USER, pc.key.c_str());
        isLeft = isLeft || (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND);
    }
    return !isLeft;
}

std::wstring MakeFolder(const std::wstring& name)
{
    const std::wstring path = ThisPc().folder + L"\\" + name;
    if (CreateDirectoryW(path.c_str(), nullptr) == 0 && GetLastError() != ERROR_ALREADY_EXISTS)
    {
        throw std::runtime_error("a folder for the check cannot be made: " + std::to_string(GetLastError()));
    }
    return path;
}

std::wstring WriteBytes(const std::wstring& path, std::string_view bytes)
{
    const repair::FileHandle file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) == 0)
    {
        throw std::runtime_error("a file for the check cannot be written: " + std::to_string(GetLastError()));
    }
    return path;
}

std::string ReadBytes(const std::wstring& path)
{
    const repair::FileHandle file = Hold(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
    std::string bytes;
    char block[4096];
    DWORD count = 0;
    while (ReadFile(file.Get(), block, sizeof(block), &count, nullptr) != 0 && count > 0)
    {
        bytes.append(block, count);
    }
    return bytes;
}

bool IsThere(const std::wstring& path)
{
    return GetFileAttributesW(Unlimited(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

repair::FileHandle Hold(const std::wstring& path, DWORD access, DWORD share)
{
    return repair::FileHandle(
        CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}
}  // namespace windows_check
