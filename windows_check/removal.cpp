// Recursive removal by the tool's own function, inside the folder of this run.
#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <vector>

#include "base/files.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
bool IsThere(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring Remove(const std::wstring& folder)
{
    try
    {
        repair::RemoveAll(folder);
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        return L"error " + Number(error.code().value());
    }
    return IsThere(folder) ? L"still there" : L"removed";
}

// A junction from an empty folder to another folder; needs no privilege. False when the system cannot do it.
bool MakeJunction(const std::wstring& link, const std::wstring& target)
{
    struct MountPoint
    {
        DWORD tag;
        WORD dataLength;
        WORD reserved;
        WORD substituteOffset;
        WORD substituteLength;
        WORD printOffset;
        WORD printLength;
        wchar_t path[2 * MAX_PATH];
    };
    const std::wstring substitute = L"\\??\\" + target;
    MountPoint point = {};
    constexpr size_t kTagBytes = 8;
    constexpr size_t kFixedBytes = 8;
    const size_t substituteBytes = substitute.size() * sizeof(wchar_t);
    const size_t printBytes = target.size() * sizeof(wchar_t);
    const size_t dataBytes = kFixedBytes + substituteBytes + printBytes + 2 * sizeof(wchar_t);
    if (kTagBytes + dataBytes > sizeof(point) || CreateDirectoryW(link.c_str(), nullptr) == 0)
    {
        return false;
    }
    point.tag = IO_REPARSE_TAG_MOUNT_POINT;
    point.dataLength = static_cast<WORD>(dataBytes);
    point.substituteLength = static_cast<WORD>(substituteBytes);
    point.printOffset = static_cast<WORD>(substituteBytes + sizeof(wchar_t));
    point.printLength = static_cast<WORD>(printBytes);
    std::copy(substitute.begin(), substitute.end(), point.path);
    std::copy(target.begin(), target.end(), point.path + substitute.size() + 1);
    const HANDLE folder = CreateFileW(link.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    DWORD returned = 0;
    const BOOL isMade = DeviceIoControl(folder, FSCTL_SET_REPARSE_POINT, &point,
                                        static_cast<DWORD>(kTagBytes + dataBytes), nullptr, 0, &returned, nullptr);
    CloseHandle(folder);
    const DWORD attributes = GetFileAttributesW(link.c_str());
    return isMade != FALSE && attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

void MakeSymbolicLink(const std::wstring& link, const std::wstring& target, DWORD flags)
{
    constexpr DWORD kUnprivileged = 2;  // SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE, with the developer mode
    const bool isMade = (CreateSymbolicLinkW(link.c_str(), target.c_str(), flags | kUnprivileged) != 0 ||
                         CreateSymbolicLinkW(link.c_str(), target.c_str(), flags) != 0) &&
                        IsThere(link);
    const std::wstring error = Number(GetLastError());
    Need(isMade,
         L"no symbolic link can be made here: " + error + L"; an administrator or the developer mode is needed");
}

// Removes a folder with a link to another folder's file or to that folder, which must survive.
template <typename MakeLink>
Seen RemoveWithLink(const std::wstring& kind, MakeLink makeLink)
{
    const std::wstring outside = MakeFolder(L"outside-" + kind);
    const std::wstring file = WriteBytes(outside + L"\\kept", "x");
    const std::wstring folder = MakeFolder(L"with-" + kind);
    makeLink(folder + L"\\link", outside, file);
    const std::wstring removed = Remove(folder);
    return Saw(removed + (IsThere(file) ? L", what it led to is kept" : L", WHAT IT LED TO IS GONE"));
}

FACT(removal, junction)
{
    return RemoveWithLink(L"junction", [](const std::wstring& link, const std::wstring& folder, const std::wstring&) {
        Need(MakeJunction(link, folder), L"no junction can be made here");
    });
}

FACT(removal, folder_link)
{
    return RemoveWithLink(L"link", [](const std::wstring& link, const std::wstring& folder, const std::wstring&) {
        MakeSymbolicLink(link, folder, SYMBOLIC_LINK_FLAG_DIRECTORY);
    });
}

FACT(removal, file_link)
{
    return RemoveWithLink(L"file", [](const std::wstring& link, const std::wstring&, const std::wstring& file) {
        MakeSymbolicLink(link, file, 0);
    });
}

FACT(removal, hard_link)
{
    return RemoveWithLink(L"hard", [](const std::wstring& link, const std::wstring&, const std::wstring& file) {
        const BOOL isMade = CreateHardLinkW(link.c_str(), file.c_str(), nullptr);
        const std::wstring error = Number(GetLastError());
        Need(isMade != FALSE, L"no second name can be made here: " + error);
    });
}

FACT(removal, broken_link)
{
    const std::wstring folder = MakeFolder(L"with-broken-link");
    MakeSymbolicLink(folder + L"\\link", folder + L"\\none", 0);
    const std::wstring isThere = YesNo(repair::Exists(folder + L"\\link"));
    return Saw(L"exists: " + isThere + L", " + Remove(folder));
}

// The file's name may disappear at once or when the last handle closes; either way the removal must end.
FACT(removal, deleted_but_open)
{
    const std::wstring folder = MakeFolder(L"deleted-open");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    const repair::FileHandle held = Hold(file, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE);
    DeleteFileW(file.c_str());
    return Saw(Remove(folder));
}

FACT(removal, locked)
{
    const std::wstring folder = MakeFolder(L"locked");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    const repair::FileHandle held = Hold(file, GENERIC_READ, 0);
    return Saw(Remove(folder));
}

// Removes a folder with one file or folder of these attributes in it.
Seen RemoveWithAttributes(const std::wstring& name, DWORD attributes, bool isFolder = false)
{
    const std::wstring folder = MakeFolder(name);
    const std::wstring entry = folder + L"\\entry";
    if (isFolder)
    {
        CreateDirectoryW(entry.c_str(), nullptr);
    }
    else
    {
        WriteBytes(entry, "x");
    }
    SetFileAttributesW(entry.c_str(), attributes);
    const std::wstring seen = Remove(folder);
    SetFileAttributesW(entry.c_str(), FILE_ATTRIBUTE_NORMAL);
    return Saw(seen);
}

SHORT_FACT(removal, read_only, RemoveWithAttributes(L"read-only", FILE_ATTRIBUTE_READONLY))
SHORT_FACT(removal, read_only_folder, RemoveWithAttributes(L"read-only-folder", FILE_ATTRIBUTE_READONLY, true))
SHORT_FACT(removal, hidden_and_system, RemoveWithAttributes(L"hidden", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM))

FACT(removal, working_folder)
{
    const std::wstring folder = MakeFolder(L"working");
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    SetCurrentDirectoryW(folder.c_str());
    const std::wstring seen = Remove(folder);
    SetCurrentDirectoryW(before);
    return Saw(seen);
}

FACT(removal, deep)
{
    std::wstring path = MakeFolder(L"deep");
    const std::wstring folder = path;
    for (int depth = 0; depth < 40 && path.size() < 225; ++depth)
    {
        path += L"\\d";
        CreateDirectoryW(path.c_str(), nullptr);
        WriteBytes(path + L"\\f", "x");
    }
    return Saw(Remove(folder), Number(path.size()) + L" characters");
}

// Made with a prefix that lifts the limit, as some installers do.
FACT(removal, long_paths)
{
    const std::wstring folder = MakeFolder(L"long-inside");
    std::wstring path = L"\\\\?\\" + folder;
    for (int depth = 0; depth < 3; ++depth)
    {
        path += L"\\" + std::wstring(100, L'x');
        if (CreateDirectoryW(path.c_str(), nullptr) == 0)
        {
            return Saw(L"the folder could not be made: " + Number(GetLastError()));
        }
    }
    WriteBytes(path + L"\\file", "x");
    return Saw(Remove(folder));
}
}  // namespace
}  // namespace windows_check
