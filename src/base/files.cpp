#include "base/files.h"

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

#include <windows.h>

#include "base/handles.h"

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

// Asks for no right to the data, so locked files and folders can be opened too; follows links.
FileHandle OpenForAttributes(const std::wstring& path)
{
    return FileHandle(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS, nullptr));
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

struct Entry
{
    std::wstring path;
    DWORD attributes = 0;
    bool isListed = false;  // the entries below it are pending
};

// The entries of a folder that will be removed; none if it cannot be listed, because the removal of the folder then
// reports the failure. The search is closed before anything is removed.
std::vector<Entry> ListForRemoval(const std::wstring& folder)
{
    std::vector<Entry> entries;
    WIN32_FIND_DATAW data = {};
    const SearchHandle search(FindFirstFileW(Join(folder, L"*").c_str(), &data));
    if (!search)
    {
        return entries;
    }
    do
    {
        if (!IsDotEntry(data.cFileName))
        {
            entries.push_back({Join(folder, data.cFileName), data.dwFileAttributes, false});
        }
    } while (FindNextFileW(search.Get(), &data) != 0);
    return entries;
}

// True for a folder whose entries must be removed first. A link to a folder is removed like an empty folder.
bool HasOwnEntries(DWORD attributes)
{
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
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
    const bool isLink = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    return !isLink || OpenForAttributes(path) ? ERROR_SUCCESS : GetLastError();
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
    while (!IsFolder(current))
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
            if (error != ERROR_ALREADY_EXISTS || !IsFolder(*folder))  // another process may have been faster
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

    // Not recursive, because folders can be nested to any depth.
    std::vector<Entry> pending = {{path, attributes, false}};
    while (!pending.empty())
    {
        const Entry entry = pending.back();
        if (HasOwnEntries(entry.attributes) && !entry.isListed)
        {
            pending.back().isListed = true;
            for (Entry& below : ListForRemoval(entry.path))
            {
                pending.push_back(std::move(below));
            }
            continue;
        }
        pending.pop_back();
        // One attempt each. A file deleted but still open elsewhere makes the folder above it "not empty", an error.
        const bool removed = (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0
                                 ? RemoveDirectoryW(entry.path.c_str()) != 0
                                 : DeleteFileW(entry.path.c_str()) != 0;
        if (!removed)
        {
            const DWORD error = GetLastError();
            if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
            {
                throw std::filesystem::filesystem_error(
                    "remove_all", path, entry.path, std::error_code(static_cast<int>(error), std::system_category()));
            }
        }
    }
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
    return Exists(path) && !IsFolder(path);
}

bool SameObject(const std::wstring& first, const std::wstring& second)
{
    const std::wstring* paths[] = {&first, &second};
    BY_HANDLE_FILE_INFORMATION information[std::size(paths)] = {};
    FileHandle files[std::size(paths)];  // both open while the ids are compared: an id can be reused after closing
    for (size_t i = 0; i < std::size(paths); ++i)
    {
        files[i] = OpenForAttributes(*paths[i]);
        if (!files[i] || GetFileInformationByHandle(files[i].Get(), &information[i]) == 0)
        {
            ThrowFileError("equivalent", *paths[i], GetLastError());
        }
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
        if (error == ERROR_FILE_NOT_FOUND && IsFolder(folder))  // the root of an empty drive has not even "."
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
        const bool isLink = (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
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
