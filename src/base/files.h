// File-system operations whose failures appear in the log.
//
// They work like the standard library's, but the std::filesystem::filesystem_error that they throw names the operation
// and the Windows error code, which this toolchain's standard library leaves out. They log nothing.
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

// Removes a file or an empty folder; an absent one is no error. Throws for "remove".
void RemoveFileIfPresent(const std::wstring& path);

// Removes a file or a folder with everything in it; an absent one is no error. A link inside is removed, its target is
// not. Throws for "remove_all"; everything removed until then stays removed.
void RemoveAll(const std::wstring& path);

// True if a file-system object of any type exists there; links are followed. Throws for "exists" if Windows gives an
// error other than absence.
bool Exists(const std::wstring& path);

// True if an object other than a folder exists there. Throws like Exists.
bool FileExists(const std::wstring& path);

// True if both paths lead to the same object on the same volume, however they are spelled. Throws for "equivalent" if
// one of them cannot be opened.
bool SameObject(const std::wstring& first, const std::wstring& second);

// Full path of the first folder directly below `folder`, in the file system's order, for whose name `wanted` is true;
// an empty path if there is none. Links to folders count as folders. Throws for
// "directory_iterator::directory_iterator" if the folder cannot be listed, "directory_iterator::operator++" if the
// listing breaks off, and "directory_entry::status" if the type of an entry cannot be read.
std::filesystem::path FindSubfolder(const std::wstring& folder, bool (*wanted)(const std::wstring& name));
}  // namespace repair
