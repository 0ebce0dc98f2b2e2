#include "base/files.h"

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

// The codes by which Windows says that nothing of that name is there.
bool MeansAbsent(DWORD code)
{
    switch (code)
    {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_DRIVE:
        case ERROR_BAD_NETPATH:
        case ERROR_BAD_DEV_TYPE:
        case ERROR_BAD_NET_NAME:
        case ERROR_INVALID_NAME:
        case ERROR_BAD_PATHNAME:
        case ERROR_DIRECTORY:
            return true;
        default:
            return false;
    }
}

bool IsFolder(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsDotEntry(const wchar_t* name)
{
    return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

// Opens without asking for any right to the content, so locked files and folders can be looked at; follows links.
FileHandle OpenForLooking(const std::wstring& path)
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
};

// What stands in a folder that is about to be removed. The search is closed before anything is removed. A folder that
// is gone meanwhile has no entries; any other failure is left to the removal of the folder itself.
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
            entries.push_back({Join(folder, data.cFileName), data.dwFileAttributes});
        }
    } while (FindNextFileW(search.Get(), &data) != 0);
    return entries;
}

// A folder whose entries go first. A link to a folder is not entered: it is removed like an empty folder.
bool HasOwnEntries(DWORD attributes)
{
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
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
    if (!MeansAbsent(error))
    {
        ThrowFileError("remove", path, error);
    }
}

void RemoveAll(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        const DWORD error = GetLastError();
        if (!MeansAbsent(error))
        {
            ThrowFileError("remove_all", path, error);
        }
        return;
    }

    // A stack of our own instead of recursion: how deep strangers nest folders is not ours to choose.
    std::vector<std::pair<Entry, bool>> pending;  // the flag: its entries are already on the stack
    pending.push_back({{path, attributes}, false});
    while (!pending.empty())
    {
        const Entry entry = pending.back().first;
        if (HasOwnEntries(entry.attributes) && !pending.back().second)
        {
            pending.back().second = true;
            for (Entry& below : ListForRemoval(entry.path))
            {
                pending.emplace_back(std::move(below), false);
            }
            continue;
        }
        pending.pop_back();
        // One attempt each. What is deleted but still open elsewhere makes the folder above it "not empty", an error.
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
    const DWORD attributes = GetFileAttributesW(path.c_str());
    DWORD error = ERROR_SUCCESS;
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        error = GetLastError();
        if (error == ERROR_SHARING_VIOLATION)  // some system files can be seen in their folder only
        {
            WIN32_FIND_DATAW data = {};
            const SearchHandle search(FindFirstFileW(path.c_str(), &data));
            error = search ? ERROR_SUCCESS : GetLastError();
        }
    }
    else if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && !OpenForLooking(path))
    {
        error = GetLastError();
    }
    if (error == ERROR_SUCCESS)
    {
        return true;
    }
    if (!MeansAbsent(error))
    {
        ThrowFileError("exists", path, error);
    }
    return false;
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
        files[i] = OpenForLooking(*paths[i]);
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
        bool isFolder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        {
            BY_HANDLE_FILE_INFORMATION target = {};
            const FileHandle file = OpenForLooking(path);
            if (!file || GetFileInformationByHandle(file.Get(), &target) == 0)
            {
                const DWORD error = GetLastError();
                if (!MeansAbsent(error))
                {
                    ThrowFileError("directory_entry::status", path, error);
                }
            }
            isFolder = (target.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;  // false for a link to nothing
        }
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
