// Files that are open: what others may do meanwhile. Log, installer, marker file.
#include <windows.h>

#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::wstring Open(const std::wstring& path, DWORD access, DWORD share, DWORD creation = OPEN_EXISTING)
{
    SetLastError(ERROR_SUCCESS);
    const HANDLE file = CreateFileW(path.c_str(), access, share, nullptr, creation, 0, nullptr);
    const DWORD error = GetLastError();
    CloseHandle(file);
    return Code(file != INVALID_HANDLE_VALUE, error);
}

std::wstring Delete(const std::wstring& path)
{
    return Code(DeleteFileW(path.c_str()) != 0);
}

std::wstring Rename(const std::wstring& path)
{
    const std::wstring other = path + L".renamed";
    const bool isRenamed = MoveFileW(path.c_str(), other.c_str()) != 0;
    const std::wstring code = Code(isRenamed);
    if (isRenamed)
    {
        MoveFileW(other.c_str(), path.c_str());
    }
    return code;
}

FACT(sharing, log)
{
    const std::wstring path = MakeFolder(L"sharing") + L"\\log";
    const HANDLE log = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr);
    const std::wstring seen = L"read " + Open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE) +
                              L", made anew " + Open(path, GENERIC_WRITE, 7, CREATE_ALWAYS) + L", deleted " +
                              Delete(path) + L", renamed " + Rename(path);
    CloseHandle(log);
    return Saw(seen);
}

FACT(sharing, held_installer)
{
    const std::wstring path = WriteBytes(MakeFolder(L"sharing") + L"\\installer", "x");
    const repair::FileHandle held = Hold(path, GENERIC_READ, FILE_SHARE_READ);
    const std::wstring seen =
        L"written " + Open(path, GENERIC_WRITE, 7) + L", deleted " + Delete(path) + L", renamed " + Rename(path);
    return Saw(seen);
}

// In a folder of the user's own; with the rights of the tool's folder see security.marker_keeps_folder.
FACT(sharing, marker)
{
    const std::wstring parent = MakeFolder(L"parent");
    const std::wstring folder = parent + L"\\folder";
    CreateDirectoryW(folder.c_str(), nullptr);
    const std::wstring path = folder + L"\\~.tmp";
    const HANDLE marker = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    // One after the other: the order of calls in one expression is the compiler's.
    std::wstring seen = L"opened " + Open(path, GENERIC_READ, 7);
    seen += L", deleted " + Delete(path);
    seen += L", folder removed " + Code(RemoveDirectoryW(folder.c_str()) != 0);
    seen += L", folder renamed " + Rename(folder);
    seen += L", parent renamed " + Rename(parent);
    CloseHandle(marker);
    return Saw(seen);
}

FACT(sharing, marker_goes)
{
    const std::wstring path = MakeFolder(L"sharing") + L"\\marker";
    CloseHandle(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    return Saw(GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES ? L"gone" : L"still there");
}

FACT(sharing, create_anew)
{
    const std::wstring folder = MakeFolder(L"sharing");
    const std::wstring existing = WriteBytes(folder + L"\\existing", "x");
    SetLastError(ERROR_SUCCESS);
    const HANDLE file = CreateFileW(existing.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    const std::wstring last = Number(GetLastError());
    CloseHandle(file);
    const std::wstring readOnly = WriteBytes(folder + L"\\read-only", "x");
    SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY);
    const std::wstring refused = Open(readOnly, GENERIC_WRITE, 0, CREATE_ALWAYS);
    SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_NORMAL);
    return Saw((file != INVALID_HANDLE_VALUE ? L"a handle and " : L"none and ") + last + L", read-only " + refused +
               L", folder " + Open(folder, GENERIC_WRITE, 0, CREATE_ALWAYS));
}

FACT(sharing, move_codes)
{
    const std::wstring folder = MakeFolder(L"sharing");
    const std::wstring from = WriteBytes(folder + L"\\from", "x");
    const std::wstring to = WriteBytes(folder + L"\\to", "x");
    const std::wstring there = Code(MoveFileW(from.c_str(), to.c_str()) != 0);
    const repair::FileHandle held = Hold(from, GENERIC_READ, FILE_SHARE_READ);
    const std::wstring open = Rename(from);
    return Saw(L"target there " + there + L", source open " + open);
}

// An old download that another program keeps open but allows to be deleted; see docs/security.md.
FACT(sharing, deleted_download)
{
    const std::wstring folder = MakeFolder(L"download");
    const std::wstring final = WriteBytes(folder + L"\\final", "old");
    const std::wstring fresh = WriteBytes(folder + L"\\fresh", "new");
    const repair::FileHandle held = Hold(final, GENERIC_READ, 7);
    std::wstring seen = L"deleted " + Delete(final);
    seen += L", renamed " + Code(MoveFileW(fresh.c_str(), final.c_str()) != 0);
    return Saw(seen);
}

FACT(sharing, write_to_nothing)
{
    DWORD written = 5;
    const BOOL isWritten = WriteFile(INVALID_HANDLE_VALUE, "x", 1, &written, nullptr);
    return Saw(Code(isWritten != 0));
}
}  // namespace
}  // namespace windows_check
