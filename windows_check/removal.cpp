// Recursive removal by the tool's own function, and files that are open; all inside the folder of this run.
#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <filesystem>

#include "base/files.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
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
    const repair::FileHandle folder(CreateFileW(link.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                                FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    DWORD returned = 0;
    const BOOL isMade = DeviceIoControl(folder.Get(), FSCTL_SET_REPARSE_POINT, &point,
                                        static_cast<DWORD>(kTagBytes + dataBytes), nullptr, 0, &returned, nullptr);
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
    return removed + (IsThere(file) ? L", what it led to is kept" : L", WHAT IT LED TO IS GONE");
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

FACT(removal, broken_link)
{
    const std::wstring folder = MakeFolder(L"with-broken-link");
    MakeSymbolicLink(folder + L"\\link", folder + L"\\none", 0);
    const std::wstring isThere = YesNo(repair::Exists(folder + L"\\link"));
    return L"exists: " + isThere + L", " + Remove(folder);
}

// The file's name may disappear at once or when the last handle closes; either way the removal must end.
FACT(removal, deleted_but_open)
{
    const std::wstring folder = MakeFolder(L"deleted-open");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    const repair::FileHandle held = Hold(file, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE);
    DeleteFileW(file.c_str());
    return Remove(folder);
}

// Made with a prefix that lifts the limit, as some installers do.
FACT(removal, long_paths)
{
    const std::wstring folder = MakeFolder(L"long-inside");
    std::wstring path = L"\\\\?\\" + folder;
    for (int depth = 0; depth < 3; ++depth)
    {
        path += L"\\" + std::wstring(100, L'x');
        CreateDirectoryW(path.c_str(), nullptr);
    }
    WriteBytes(path + L"\\file", "x");
    return Remove(folder);
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::wstring Open(const std::wstring& path, DWORD access, DWORD share, DWORD creation = OPEN_EXISTING)
{
    const repair::FileHandle file(CreateFileW(path.c_str(), access, share, nullptr, creation, 0, nullptr));
    return Code(static_cast<bool>(file));
}

std::wstring Delete(const std::wstring& path)
{
    return Code(DeleteFileW(path.c_str()) != 0);
}

std::wstring Rename(const std::wstring& path)
{
    const std::wstring other = path + L".renamed";
    const std::wstring code = Code(MoveFileW(path.c_str(), other.c_str()) != 0);
    MoveFileW(other.c_str(), path.c_str());
    return code;
}

FACT(sharing, log)
{
    const std::wstring path = WriteBytes(MakeFolder(L"sharing") + L"\\log", "x");
    const repair::FileHandle log = Hold(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ);
    return L"read " + Open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE) + L", made anew " +
           Open(path, GENERIC_WRITE, kShareAll, CREATE_ALWAYS) + L", deleted " + Delete(path) + L", renamed " +
           Rename(path);
}

FACT(sharing, held_installer)
{
    const std::wstring path = WriteBytes(MakeFolder(L"sharing") + L"\\installer", "x");
    const repair::FileHandle held = Hold(path, GENERIC_READ, FILE_SHARE_READ);
    return L"written " + Open(path, GENERIC_WRITE, kShareAll) + L", deleted " + Delete(path) + L", renamed " +
           Rename(path);
}

FACT(sharing, marker)
{
    const std::wstring parent = MakeFolder(L"parent");
    const std::wstring folder = MakeFolder(L"parent\\folder");
    const std::wstring path = folder + L"\\~.tmp";
    repair::FileHandle marker(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                          FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    // One after the other: the order of calls in one expression is the compiler's.
    std::wstring seen = L"opened " + Open(path, GENERIC_READ, kShareAll);
    seen += L", deleted " + Delete(path);
    seen += L", folder removed " + Code(RemoveDirectoryW(folder.c_str()) != 0);
    seen += L", folder renamed " + Rename(folder);
    seen += L", parent renamed " + Rename(parent);
    marker.Close();
    return seen + (IsThere(path) ? L", still there when closed" : L", gone when closed");
}

// An old download that another program keeps open but allows to be deleted; see docs/security.md.
FACT(sharing, deleted_download)
{
    const std::wstring folder = MakeFolder(L"download");
    const std::wstring final = WriteBytes(folder + L"\\final", "old");
    const std::wstring fresh = WriteBytes(folder + L"\\fresh", "new");
    const repair::FileHandle held = Hold(final, GENERIC_READ, kShareAll);
    const std::wstring deleted = Delete(final);
    return L"deleted " + deleted + L", renamed " + Code(MoveFileW(fresh.c_str(), final.c_str()) != 0);
}
}  // namespace
}  // namespace windows_check
