#include "base/files.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

#include <windows.h>

namespace repair
{
namespace
{
struct SearchKind
{
    using Handle = HANDLE;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle search) noexcept { FindClose(search); }
};
using SearchHandle = Owned<SearchKind>;

// The codes by which Windows says that nothing of that name exists.
constexpr DWORD kAbsenceCodes[] = {
    ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_INVALID_DRIVE, ERROR_BAD_NETPATH, ERROR_BAD_DEV_TYPE,
    ERROR_BAD_NET_NAME,   ERROR_INVALID_NAME,   ERROR_BAD_PATHNAME,  ERROR_DIRECTORY,
};

// Attempts to open a file that another program has open: 11 attempts take a second.
constexpr int kHoldAttempts = 11;
constexpr DWORD kHoldPauseMs = 100;

constexpr DWORD kLongestPath = 32'768;
constexpr DWORD kUntrustedMountPoint = 448;  // ERROR_UNTRUSTED_MOUNT_POINT, not in every header

bool IsFolder(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// A failure is an error unless it only means that the object does not exist.
void ThrowUnlessAbsent(const char* operation, const std::wstring& path, DWORD code)
{
    if (std::find(std::begin(kAbsenceCodes), std::end(kAbsenceCodes), code) == std::end(kAbsenceCodes))
    {
        ThrowFileError(operation, path, code);
    }
}

bool IsDotEntry(const wchar_t* name)
{
    return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

// Links are the reparse points that stand for another name. Others are files and folders of their own, which a driver
// completes when they are read. A tag of 0 is unknown, and counts as a link.
bool MarksLink(DWORD attributes, DWORD tag)
{
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && (tag == 0 || IsReparseTagNameSurrogate(tag));
}

// Asks for no right to the data, so locked files and folders can be opened too; follows links.
FileHandle OpenForAttributes(const std::wstring& path)
{
    return FileHandle(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

// Removes a link whose target was removed. Returns whether it did. A target that cannot be reached stays linked: with
// ERROR_PATH_NOT_FOUND its drive may only be absent for now.
bool RemoveDeadLink(const std::wstring& path)
{
    if (!IsLink(path) || OpenForAttributes(path))
    {
        return false;
    }
    return GetLastError() == ERROR_FILE_NOT_FOUND && RemoveDirectoryW(path.c_str()) != 0;
}

std::wstring WithoutTrailingSeparators(std::wstring path)
{
    while (!path.empty() && (path.back() == L'\\' || path.back() == L'/'))
    {
        path.pop_back();
    }
    return path;
}

std::wstring Join(const std::wstring& folder, const std::wstring& name)
{
    return (std::filesystem::path(folder) / name).wstring();
}

// An object to remove.
struct Entry
{
    std::wstring path;
    DWORD attributes = 0;    // as listed; only links are marked as reparse points
    size_t folder = 0;       // index of its parent folder's entry; the root entry has its own index
    FileHandle object = {};  // folders only: open from before the entries are listed until they are removed
};

// True for a folder with entries of its own; a link to a folder has none.
bool HasOwnEntries(DWORD attributes)
{
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

// Opens the object at the path, a link too, instead of what the link leads to.
FileHandle OpenItself(const std::wstring& path, DWORD access, DWORD share)
{
    return FileHandle(CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

bool IsOwnFolder(HANDLE object)
{
    FILE_ATTRIBUTE_TAG_INFO information = {};
    return GetFileInformationByHandleEx(object, FileAttributeTagInfo, &information, sizeof(information)) != 0 &&
           (information.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
           !MarksLink(information.FileAttributes, information.ReparseTag);
}

// Only links stay marked as reparse points.
DWORD ForRemoval(DWORD attributes, bool isLink)
{
    return isLink ? attributes : attributes & ~DWORD{FILE_ATTRIBUTE_REPARSE_POINT};
}

// The entries of an open folder; none if it cannot be listed. A removal reports that later, for the folder.
std::vector<Entry> List(HANDLE folder, const std::wstring& path, size_t index)
{
    std::vector<Entry> entries;
    alignas(FILE_FULL_DIR_INFO) char buffer[32 * 1024];
    while (GetFileInformationByHandleEx(folder, FileFullDirectoryInfo, buffer, sizeof(buffer)) != 0)
    {
        for (size_t offset = 0, next = 1; next != 0; offset += next)
        {
            const auto* const information = reinterpret_cast<const FILE_FULL_DIR_INFO*>(buffer + offset);
            const std::wstring name(information->FileName, information->FileNameLength / sizeof(wchar_t));
            if (!IsDotEntry(name.c_str()))
            {
                // EaSize of a reparse point contains its tag.
                const bool isLink = MarksLink(information->FileAttributes, information->EaSize);
                entries.push_back({Join(path, name), ForRemoval(information->FileAttributes, isLink), index});
            }
            next = information->NextEntryOffset;
        }
    }
    return entries;
}

FileHandle OpenForRemoval(const Entry& entry)
{
    const bool isFolder = HasOwnEntries(entry.attributes);
    const bool isReadOnly = (entry.attributes & FILE_ATTRIBUTE_READONLY) != 0;
    return OpenItself(entry.path,
                      DELETE | FILE_READ_ATTRIBUTES | (isFolder ? FILE_LIST_DIRECTORY | SYNCHRONIZE : 0) |
                          (isReadOnly ? FILE_WRITE_ATTRIBUTES : 0),
                      FILE_SHARE_READ | FILE_SHARE_WRITE | (isFolder ? 0 : FILE_SHARE_DELETE));
}

// Removes the object when the handle is closed.
bool MarkForRemoval(const Entry& entry)
{
    constexpr auto kFileDispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);  // not in every header
    FILE_DISPOSITION_INFO_EX atOnce = {FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_POSIX_SEMANTICS |
                                       FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE};
    if (SetFileInformationByHandle(entry.object.Get(), kFileDispositionInfoEx, &atOnce, sizeof(atOnce)) != 0)
    {
        return true;
    }
    // Older systems and other file systems do not know that.
    if ((entry.attributes & FILE_ATTRIBUTE_READONLY) != 0)
    {
        FILE_BASIC_INFO basic = {};  // times of 0 stay as they are
        basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
        SetFileInformationByHandle(entry.object.Get(), FileBasicInfo, &basic, sizeof(basic));
    }
    FILE_DISPOSITION_INFO disposition = {TRUE};
    return SetFileInformationByHandle(entry.object.Get(), FileDispositionInfo, &disposition, sizeof(disposition)) != 0;
}

// Where an open object is: its volume and its path, by which it was opened or in long names. Empty if that cannot be
// read.
std::wstring NameOf(HANDLE object, DWORD spelling)
{
    std::wstring name(kLongestPath, L'\0');
    if (spelling == FILE_NAME_NORMALIZED)
    {
        name.resize(GetFinalPathNameByHandleW(object, name.data(), kLongestPath, VOLUME_NAME_NT));
        return name;
    }
    BY_HANDLE_FILE_INFORMATION volume = {};
    if (GetFileInformationByHandle(object, &volume) == 0 ||
        GetFileInformationByHandleEx(object, FileNameInfo, name.data(), kLongestPath * sizeof(wchar_t)) == 0)
    {
        return {};
    }
    const auto* const information = reinterpret_cast<const FILE_NAME_INFO*>(name.data());
    return std::to_wstring(volume.dwVolumeSerialNumber) +
           std::wstring(information->FileName, information->FileNameLength / sizeof(wchar_t));
}

bool IsLinkWith(DWORD attributes, const std::wstring& path)
{
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0)
    {
        return false;
    }
    WIN32_FIND_DATAW data = {};
    const SearchHandle search(FindFirstFileW(WithoutTrailingSeparators(path).c_str(), &data));
    return MarksLink(attributes, data.dwReserved0);  // the tag
}

// A file with a name that cannot be foreseen; the system removes it when its handle is closed.
FileHandle CreateKeeper(const std::wstring& folder)
{
    LARGE_INTEGER ticks = {};
    QueryPerformanceCounter(&ticks);
    const std::wstring path = Join(folder, L"~" + std::to_wstring(ticks.QuadPart) + L".tmp");
    return FileHandle(CreateFileW(path.c_str(), DELETE, 0, nullptr, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
}

// Finds a path by the listing of its folder.
DWORD FindErrorOf(const std::wstring& path)
{
    WIN32_FIND_DATAW data = {};
    const SearchHandle search(FindFirstFileW(path.c_str(), &data));
    return search ? ERROR_SUCCESS : GetLastError();
}

// ERROR_SUCCESS if an object exists at the path or at the end of the link there, otherwise the code that says why not.
DWORD ExistenceError(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        const DWORD error = GetLastError();
        return error == ERROR_SHARING_VIOLATION ? FindErrorOf(path) : error;  // some system files can only be listed
    }
    return !IsLinkWith(attributes, path) || OpenForAttributes(path) ? ERROR_SUCCESS : GetLastError();
}

// Whether a link leads to a folder; false if its target does not exist.
bool LeadsToFolder(const std::wstring& link)
{
    BY_HANDLE_FILE_INFORMATION target = {};
    const FileHandle file = OpenForAttributes(link);
    if (!file || GetFileInformationByHandle(file.Get(), &target) == 0)
    {
        ThrowUnlessAbsent("directory_entry::status", link, GetLastError());
    }
    return (target.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}
}  // namespace

void ThrowFileError(const char* operation, const std::wstring& path, DWORD code)
{
    throw std::filesystem::filesystem_error(operation, path,
                                            std::error_code(static_cast<int>(code), std::system_category()));
}

void CreateDirectories(const std::wstring& path)
{
    std::vector<std::wstring> missing;  // deepest first
    std::wstring current = WithoutTrailingSeparators(path);
    while (!IsFolder(current) || RemoveDeadLink(current))
    {
        missing.push_back(current);
        std::wstring parent = std::filesystem::path(current).parent_path().wstring();
        if (parent.empty() || parent == current)
        {
            break;
        }
        current = std::move(parent);
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder)
    {
        if (CreateDirectoryW(folder->c_str(), nullptr) == 0)
        {
            const DWORD error = GetLastError();
            if (error != ERROR_ALREADY_EXISTS || !IsFolder(*folder))  // another process may have created it
            {
                ThrowFileError("create_directories", path, error);
            }
        }
    }
}

void RemoveFileIfPresent(const std::wstring& path)
{
    if (DeleteFileW(path.c_str()) != 0)
    {
        return;
    }
    DWORD error = GetLastError();
    if (error == ERROR_ACCESS_DENIED && IsFolder(path))
    {
        if (RemoveDirectoryW(path.c_str()) != 0)
        {
            return;
        }
        error = GetLastError();
    }
    ThrowUnlessAbsent("remove", path, error);
}

void RemoveAll(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        ThrowUnlessAbsent("remove_all", path, GetLastError());
        return;
    }

    const auto fail = [&path](const Entry& entry, DWORD error) {
        throw std::filesystem::filesystem_error("remove_all", path, entry.path,
                                                std::error_code(static_cast<int>(error), std::system_category()));
    };
    // Not recursive, because folders can be nested to any depth.
    std::vector<Entry> pending;
    pending.push_back({path, ForRemoval(attributes, IsLinkWith(attributes, path))});
    while (!pending.empty())
    {
        const size_t index = pending.size() - 1;
        Entry& entry = pending[index];
        if (!entry.object)
        {
            entry.object = OpenForRemoval(entry);
            if (!entry.object)
            {
                const DWORD error = GetLastError();
                if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
                {
                    fail(entry, error);
                }
                pending.pop_back();
                continue;
            }
            // False if a link has replaced the folder and the path led through it.
            if (entry.folder != index && !IsBelow(entry.object.Get(), pending[entry.folder].object.Get()))
            {
                fail(entry, ERROR_CANT_RESOLVE_FILENAME);
            }
            if (HasOwnEntries(entry.attributes) && IsOwnFolder(entry.object.Get()))
            {
                std::vector<Entry> below = List(entry.object.Get(), entry.path, index);
                if (!below.empty())
                {
                    std::move(below.begin(), below.end(), std::back_inserter(pending));
                    continue;
                }
            }
        }
        // One attempt per object. If another program still has a deleted file open, its folder fails as "not empty".
        if (!MarkForRemoval(entry))
        {
            fail(entry, GetLastError());
        }
        pending.pop_back();
    }
}

bool IsLink(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && IsLinkWith(attributes, path);
}

bool CrossesLink(const std::wstring& path)
{
    std::filesystem::path current = path;
    while (!IsLink(current.wstring()))
    {
        if (current == current.parent_path())
        {
            return false;
        }
        current = current.parent_path();
    }
    return true;
}

FileHandle HoldFolder(const std::wstring& path, DWORD furtherAccess)
{
    // Ask for more than the attributes: Windows ignores the share mode of a handle with no other right.
    FileHandle folder = OpenItself(path, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | furtherAccess,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (folder && !IsOwnFolder(folder.Get()))
    {
        folder.Close();
        SetLastError(ERROR_CANT_RESOLVE_FILENAME);
    }
    return folder;
}

HeldFolder HoldWithKeeper(const std::wstring& path)
{
    HeldFolder held;
    held.folder = HoldFolder(path);
    if (!held.folder)
    {
        return held;
    }
    held.keeper = CreateKeeper(path);
    if (held.keeper && !IsBelow(held.keeper.Get(), held.folder.Get()))  // became a link before the file was in it
    {
        held = HeldFolder();
        SetLastError(ERROR_CANT_RESOLVE_FILENAME);
    }
    return held;
}

FileHandle HoldFile(const std::wstring& path)
{
    for (int attempt = 1;; ++attempt)
    {
        FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
        if (file || GetLastError() != ERROR_SHARING_VIOLATION || attempt == kHoldAttempts)
        {
            return file;
        }
        Sleep(kHoldPauseMs);
    }
}

bool IsBelow(HANDLE object, HANDLE folder, DWORD spelling)
{
    std::wstring beginning = NameOf(folder, spelling);
    if (beginning.empty())
    {
        return spelling == FILE_NAME_OPENED && IsOwnFolder(folder);
    }
    const std::wstring name = NameOf(object, spelling);
    if (beginning.back() != L'\\')
    {
        beginning += L'\\';
    }
    return name.size() > beginning.size() &&
           CompareStringOrdinal(name.data(), static_cast<int>(beginning.size()), beginning.data(),
                                static_cast<int>(beginning.size()), TRUE) == CSTR_EQUAL;
}

bool ContainsOnly(HANDLE folder, const std::wstring& name)
{
    const std::vector<Entry> entries = List(folder, L"", 0);
    return entries.size() == 1 && entries.front().path == name;
}

bool Exists(const std::wstring& path)
{
    const DWORD error = ExistenceError(path);
    if (error != ERROR_SUCCESS)
    {
        ThrowUnlessAbsent("exists", path, error);
    }
    return error == ERROR_SUCCESS;
}

bool FileExists(const std::wstring& path)
{
    return ExistenceError(path) == ERROR_SUCCESS && !IsFolder(path);
}

bool SameObject(const std::wstring& first, const std::wstring& second)
{
    const std::wstring* paths[] = {&first, &second};
    BY_HANDLE_FILE_INFORMATION information[std::size(paths)] = {};
    FILE_ID_INFO longIds[std::size(paths)] = {};
    bool haveLongIds = true;
    FileHandle files[std::size(paths)];  // both open while the ids are compared: an id can be reused after closing
    for (size_t i = 0; i < std::size(paths); ++i)
    {
        files[i] = OpenForAttributes(*paths[i]);
        if (!files[i] || GetFileInformationByHandle(files[i].Get(), &information[i]) == 0)
        {
            const DWORD error = GetLastError();
            if (error == kUntrustedMountPoint)
            {
                return CompareStringOrdinal(WithoutTrailingSeparators(first).c_str(), -1,
                                            WithoutTrailingSeparators(second).c_str(), -1, TRUE) == CSTR_EQUAL;
            }
            ThrowFileError("equivalent", *paths[i], error);
        }
        haveLongIds &= GetFileInformationByHandleEx(files[i].Get(), FileIdInfo, &longIds[i], sizeof(longIds[i])) != 0;
    }
    if (haveLongIds)  // on ReFS the ids of 64 bits are not unique
    {
        return std::memcmp(&longIds[0], &longIds[1], sizeof(longIds[0])) == 0;
    }
    return information[0].dwVolumeSerialNumber == information[1].dwVolumeSerialNumber &&
           information[0].nFileIndexHigh == information[1].nFileIndexHigh &&
           information[0].nFileIndexLow == information[1].nFileIndexLow;
}

std::filesystem::path FindSubfolder(const std::wstring& folder, bool (*wanted)(const std::wstring& name))
{
    const std::wstring pattern = Join(folder, L"*");
    WIN32_FIND_DATAW data = {};
    const SearchHandle search(FindFirstFileW(pattern.c_str(), &data));
    if (!search)
    {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND && IsFolder(folder))  // the root of an empty drive, which has no "." entry
        {
            return {};
        }
        ThrowFileError("directory_iterator::directory_iterator", folder, error);
    }
    do
    {
        if (IsDotEntry(data.cFileName))
        {
            continue;
        }
        const std::wstring path = Join(folder, data.cFileName);
        const bool isLink = MarksLink(data.dwFileAttributes, data.dwReserved0);
        const bool isFolder = isLink ? LeadsToFolder(path) : (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (isFolder && wanted(data.cFileName))
        {
            return path;
        }
    } while (FindNextFileW(search.Get(), &data) != 0);
    const DWORD error = GetLastError();
    if (error != ERROR_NO_MORE_FILES)
    {
        ThrowFileError("directory_iterator::operator++", folder, error);
    }
    return {};
}
}  // namespace repair
