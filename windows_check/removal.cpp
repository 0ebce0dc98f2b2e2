// Removal by the tool's own functions, links, and files and folders that are open; all inside the folder of this run.
#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <filesystem>

#include "base/files.h"
#include "base/library.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
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

// Turns an open folder into a junction to another folder; needs no privilege. Returns the error code, 0 on success.
DWORD SetMountPoint(HANDLE folder, const std::wstring& target)
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
    if (kTagBytes + dataBytes > sizeof(point))
    {
        return ERROR_FILENAME_EXCED_RANGE;
    }
    point.tag = IO_REPARSE_TAG_MOUNT_POINT;
    point.dataLength = static_cast<WORD>(dataBytes);
    point.substituteLength = static_cast<WORD>(substituteBytes);
    point.printOffset = static_cast<WORD>(substituteBytes + sizeof(wchar_t));
    point.printLength = static_cast<WORD>(printBytes);
    std::copy(substitute.begin(), substitute.end(), point.path);
    std::copy(target.begin(), target.end(), point.path + substitute.size() + 1);
    DWORD returned = 0;
    return DeviceIoControl(folder, FSCTL_SET_REPARSE_POINT, &point, static_cast<DWORD>(kTagBytes + dataBytes), nullptr,
                           0, &returned, nullptr) != FALSE
               ? ERROR_SUCCESS
               : GetLastError();
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

repair::FileHandle OpenFolderToChangeIt(const std::wstring& folder)
{
    return repair::FileHandle(CreateFileW(folder.c_str(), GENERIC_WRITE, kShareAll, nullptr, OPEN_EXISTING,
                                          FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

// Makes a new folder that is a junction to another one. Throws NotApplicable if the system cannot do it.
void MakeJunction(const std::wstring& link, const std::wstring& target)
{
    CreateDirectoryW(link.c_str(), nullptr);
    const DWORD error = SetMountPoint(OpenFolderToChangeIt(link).Get(), target);
    const DWORD attributes = GetFileAttributesW(link.c_str());
    Need(error == ERROR_SUCCESS && attributes != INVALID_FILE_ATTRIBUTES &&
             (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0,
         L"no junction can be made here");
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
        MakeJunction(link, folder);
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

// The folder of the log, for instance.
FACT(removal, dead_link)
{
    const std::wstring target = MakeFolder(L"removed-target");
    const std::wstring link = MakeFolder(L"with-dead-link") + L"\\link";
    MakeJunction(link, target);
    RemoveDirectoryW(target.c_str());
    repair::CreateDirectories(link);
    return (GetFileAttributesW(link.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? L"still a link" : L"a folder";
}

// As the tool removes a file, here one that is write-protected and open elsewhere.
FACT(removal, by_handle)
{
    const std::wstring path = WriteBytes(MakeFolder(L"by-handle") + L"\\file", "x");
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
    const repair::FileHandle elsewhere = Hold(path, GENERIC_READ, kShareAll);
    repair::FileHandle file = Hold(path, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, kShareAll);
    FILE_DISPOSITION_INFO_EX atOnce = {FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_POSIX_SEMANTICS |
                                       FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE};
    constexpr auto kFileDispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);
    const std::wstring code =
        Code(SetFileInformationByHandle(file.Get(), kFileDispositionInfoEx, &atOnce, sizeof(atOnce)) != 0);
    file.Close();
    return code + (IsThere(path) ? L", still there" : L", gone");
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

std::wstring TryOpen(const std::wstring& path, DWORD access, DWORD share, DWORD creation = OPEN_EXISTING)
{
    const repair::FileHandle file(CreateFileW(path.c_str(), access, share, nullptr, creation, 0, nullptr));
    return Code(static_cast<bool>(file));
}

std::wstring TryDelete(const std::wstring& path)
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
    return L"read " + TryOpen(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE) + L", made anew " +
           TryOpen(path, GENERIC_WRITE, kShareAll, CREATE_ALWAYS) + L", deleted " + TryDelete(path) + L", renamed " +
           Rename(path);
}

FACT(sharing, held_installer)
{
    const std::wstring path = WriteBytes(MakeFolder(L"sharing") + L"\\installer", "x");
    const repair::FileHandle held = Hold(path, GENERIC_READ, FILE_SHARE_READ);
    return L"written " + TryOpen(path, GENERIC_WRITE, kShareAll) + L", deleted " + TryDelete(path) + L", renamed " +
           Rename(path);
}

FACT(sharing, held_folder)
{
    const std::wstring folder = MakeFolder(L"held");
    const repair::FileHandle held = repair::HoldFolder(folder);
    const std::wstring renamed = Rename(folder);
    return L"renamed " + renamed + L", removed " + Code(RemoveDirectoryW(folder.c_str()) != 0);
}

FACT(sharing, keeper)
{
    const std::wstring folder = MakeFolder(L"kept");
    const repair::FileHandle held = repair::HoldFolder(folder);
    const repair::FileHandle keeper = Hold(WriteBytes(folder + L"\\keeper", "x"), DELETE, 0);
    const DWORD error = SetMountPoint(OpenFolderToChangeIt(folder).Get(), MakeFolder(L"elsewhere"));
    return Code(error == ERROR_SUCCESS, error);
}

FACT(sharing, marker)
{
    const std::wstring parent = MakeFolder(L"parent");
    const std::wstring folder = MakeFolder(L"parent\\folder");
    const std::wstring path = folder + L"\\~.tmp";
    repair::FileHandle marker(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                          FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    // One after the other: the order of calls in one expression is the compiler's.
    std::wstring seen = L"opened " + TryOpen(path, GENERIC_READ, kShareAll);
    seen += L", deleted " + TryDelete(path);
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
    const std::wstring deleted = TryDelete(final);
    return L"deleted " + deleted + L", renamed " + Code(MoveFileW(fresh.c_str(), final.c_str()) != 0);
}

PROBE(read)
{
    return GetFileAttributesW(argument.c_str()) != INVALID_FILE_ATTRIBUTES ? 0 : static_cast<int>(GetLastError());
}

// Guards itself, reads the file, and has a program that it starts read it.
PROBE(guarded)
{
    const std::wstring program = Filled([](wchar_t* path, DWORD size) { GetModuleFileNameW(nullptr, path, size); });
    using SetPolicy = BOOL(WINAPI*)(PROCESS_MITIGATION_POLICY, void*, SIZE_T);
    const auto setPolicy =
        repair::LookUpFunction<SetPolicy>(GetModuleHandleW(L"kernel32.dll"), "SetProcessMitigationPolicy");
    PROCESS_MITIGATION_REDIRECTION_TRUST_POLICY policy = {};
    policy.EnforceRedirectionTrust = 1;
    if (setPolicy == nullptr || setPolicy(ProcessRedirectionTrustPolicy, &policy, sizeof(policy)) == FALSE)
    {
        return 0;
    }
    const repair::ProcessHandle child = StartProbe(program, L"read \"" + argument + L"\"", nullptr, nullptr);
    DWORD childsError = 0;
    WaitForSingleObject(child.Get(), INFINITE);
    GetExitCodeProcess(child.Get(), &childsError);
    Tell(L"read", Number(Probe_read(argument)) + L", by a program it starts " + Number(childsError));
    return 0;
}

FACT(security, redirection_guard)
{
    Need(!ThisPc().isElevated, L"what an administrator links is followed; start the program without those rights");
    const std::wstring folder = MakeFolder(L"guarded");
    const std::wstring link = MakeFolder(L"with-guarded") + L"\\link";
    WriteBytes(folder + L"\\file", "x");
    MakeJunction(link, folder);
    const Answer answer = Ask(L"guarded \"" + link + L"\\file\"");
    Need(answer.lines.count(L"read") > 0, L"this Windows has no redirection guard");
    return answer[L"read"];
}
}  // namespace
}  // namespace windows_check
