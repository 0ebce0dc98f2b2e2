// File-system operations whose failures appear in the log.
//
// They behave like the standard library's of the same name, but name the operation and the Windows error code in the
// std::filesystem::filesystem_error that they throw, which the standard library of this toolchain does not.
// Nothing is logged here.
#pragma once

#include <filesystem>
#include <string>

#include <windows.h>

namespace repair
{
// Throws std::filesystem::filesystem_error with the operation, the path and the Win32 code.
[[noreturn]] void ThrowFileError(const char* operation, const std::wstring& path, DWORD code);

// Creates a folder and all missing parents; an existing folder is fine. Throws for "create_directories".
void CreateDirectories(const std::wstring& path);

// Removes a file or an empty folder; one that is absent is no error. Throws for "remove".
void RemoveFileIfPresent(const std::wstring& path);

// Removes a file or a folder with everything in it; absent is no error. A link inside is removed itself, what it points
// to is left alone. Throws for "remove_all"; what was removed until then stays removed.
void RemoveAll(const std::wstring& path);

// True when a file-system object of any type exists there (links are followed). Throws for "exists" when that cannot
// be found out.
bool Exists(const std::wstring& path);

// True when an object that is not a folder exists there. Throws like Exists.
bool FileExists(const std::wstring& path);

// True when both paths lead to the same object on the same volume, whatever their spelling. Throws for "equivalent"
// when one of them cannot be opened.
bool SameObject(const std::wstring& first, const std::wstring& second);

// The first folder directly below `folder`, in the file system's order, for whose name `wanted` is true (links to
// folders count as folders); its full path, or an empty path. Throws for "directory_iterator::directory_iterator" when
// the folder cannot be listed, "directory_iterator::operator++" when the listing breaks off, and
// "directory_entry::status" when an entry's type cannot be found out.
std::filesystem::path FindSubfolder(const std::wstring& folder, bool (*wanted)(const std::wstring& name));
}  // namespace repair
