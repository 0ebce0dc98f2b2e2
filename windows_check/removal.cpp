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

bool MakeSymbolicLink(const std::wstring& link, const std::wstring& target, DWORD flags)
{
    constexpr DWORD kUnprivileged = 2;  // SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE, with the developer mode
    return (CreateSymbolicLinkW(link.c_str(), target.c_str(), flags | kUnprivileged) != 0 ||
            CreateSymbolicLinkW(link.c_str(), target.c_str(), flags) != 0) &&
           IsThere(link);
}

// What stands outside and must survive.
std::wstring MakeOutside(const wchar_t* name)
{
    const std::wstring outside = MakeFolder(name);
    WriteBytes(outside + L"\\kept", "x");
    return outside;
}

std::wstring Outcome(const std::wstring& folder, const std::wstring& outside)
{
    const std::wstring removed = Remove(folder);
    return removed + (IsThere(outside + L"\\kept") ? L", what it led to is kept" : L", WHAT IT LED TO IS GONE");
}

Seen Junction()
{
    const std::wstring outside = MakeOutside(L"outside-junction");
    const std::wstring folder = MakeFolder(L"with-junction");
    if (!MakeJunction(folder + L"\\link", outside))
    {
        return DoesNotApply(L"no junction can be made here");
    }
    return Saw(Outcome(folder, outside));
}

Seen FolderLink()
{
    const std::wstring outside = MakeOutside(L"outside-link");
    const std::wstring folder = MakeFolder(L"with-link");
    if (!MakeSymbolicLink(folder + L"\\link", outside, SYMBOLIC_LINK_FLAG_DIRECTORY))
    {
        return DoesNotApply(L"no symbolic link can be made here: " + Number(GetLastError()) +
                            L"; an administrator or the developer mode is needed");
    }
    return Saw(Outcome(folder, outside));
}

Seen FileLink()
{
    const std::wstring outside = MakeOutside(L"outside-file");
    const std::wstring folder = MakeFolder(L"with-file-link");
    if (!MakeSymbolicLink(folder + L"\\link", outside + L"\\kept", 0))
    {
        return DoesNotApply(L"no symbolic link can be made here: " + Number(GetLastError()) +
                            L"; an administrator or the developer mode is needed");
    }
    return Saw(Outcome(folder, outside));
}

Seen BrokenLink()
{
    const std::wstring folder = MakeFolder(L"with-broken-link");
    if (!MakeSymbolicLink(folder + L"\\link", folder + L"\\none", 0))
    {
        return DoesNotApply(L"no symbolic link can be made here: " + Number(GetLastError()) +
                            L"; an administrator or the developer mode is needed");
    }
    const std::wstring isThere = YesNo(repair::Exists(folder + L"\\link"));
    return Saw(L"exists: " + isThere + L", " + Remove(folder));
}

Seen HardLink()
{
    const std::wstring outside = MakeOutside(L"outside-hard");
    const std::wstring folder = MakeFolder(L"with-hard-link");
    if (CreateHardLinkW((folder + L"\\link").c_str(), (outside + L"\\kept").c_str(), nullptr) == 0)
    {
        return DoesNotApply(L"no second name can be made here: " + Number(GetLastError()));
    }
    return Saw(Outcome(folder, outside));
}

// The file's name may go at once or when the last handle closes; either way the removal must come to an end.
Seen DeletedButOpen()
{
    const std::wstring folder = MakeFolder(L"deleted-open");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    const HANDLE held = CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    DeleteFileW(file.c_str());
    const std::wstring seen = Remove(folder);
    CloseHandle(held);
    return Saw(seen);
}

Seen Locked()
{
    const std::wstring folder = MakeFolder(L"locked");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    const HANDLE held = CreateFileW(file.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const std::wstring seen = Remove(folder);
    CloseHandle(held);
    return Saw(seen);
}

Seen ReadOnly()
{
    const std::wstring folder = MakeFolder(L"read-only");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    const std::wstring seen = Remove(folder);
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    return Saw(seen);
}

Seen WorkingFolder()
{
    const std::wstring folder = MakeFolder(L"working");
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    SetCurrentDirectoryW(folder.c_str());
    const std::wstring seen = Remove(folder);
    SetCurrentDirectoryW(before);
    return Saw(seen);
}

Seen Deep()
{
    std::wstring path = MakeFolder(L"deep");
    const std::wstring folder = path;
    for (int depth = 0; depth < 40 && path.size() < 225; ++depth)
    {
        path += L"\\d";
        CreateDirectoryW(path.c_str(), nullptr);
        WriteBytes(path + L"\\f", "x");
    }
    return Saw(Remove(folder), Number(static_cast<long long>(path.size())) + L" characters");
}

// Made with a prefix that lifts the limit, as some installers do.
Seen LongPaths()
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

Seen HiddenAndSystem()
{
    const std::wstring folder = MakeFolder(L"hidden");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    return Saw(Remove(folder));
}

Seen ReadOnlyFolder()
{
    const std::wstring folder = MakeFolder(L"read-only-folder");
    CreateDirectoryW((folder + L"\\below").c_str(), nullptr);
    SetFileAttributesW((folder + L"\\below").c_str(), FILE_ATTRIBUTE_READONLY);
    const std::wstring seen = Remove(folder);
    SetFileAttributesW((folder + L"\\below").c_str(), FILE_ATTRIBUTE_NORMAL);
    return Saw(seen);
}
}  // namespace

std::vector<Check> RemovalChecks()
{
    return {
        {"removal.junction", Junction},
        {"removal.folder_link", FolderLink},
        {"removal.file_link", FileLink},
        {"removal.broken_link", BrokenLink},
        {"removal.hard_link", HardLink},
        {"removal.deleted_but_open", DeletedButOpen, 5'000},
        {"removal.locked", Locked},
        {"removal.read_only", ReadOnly},
        {"removal.read_only_folder", ReadOnlyFolder},
        {"removal.hidden_and_system", HiddenAndSystem},
        {"removal.working_folder", WorkingFolder},
        {"removal.deep", Deep},
        {"removal.long_paths", LongPaths},
    };
}
}  // namespace windows_check
