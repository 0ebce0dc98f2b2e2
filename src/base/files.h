// File-system operations whose failures appear in the log.
//
// They work like the standard library's, but the std::filesystem::filesystem_error that they throw names the operation
// and the Windows error code, which this toolchain's standard library leaves out. They log nothing.
#pragma once

#include <filesystem>
#include <string>

#include <windows.h>

#include "base/handles.h"

namespace repair
{
// Throws std::filesystem::filesystem_error with the operation, the path and the Win32 code.
[[noreturn]] void ThrowFileError(const char* operation, const std::wstring& path, DWORD code);

// Creates a folder and all missing parents; an existing folder is fine, and so is a link to one. A link whose target
// was removed is replaced by a folder; one whose drive is absent stays. Throws for "create_directories".
void CreateDirectories(const std::wstring& path);

// Removes a file or an empty folder; an absent one is no error. Throws for "remove".
void RemoveFileIfPresent(const std::wstring& path);

// Removes a file or a folder with everything in it, write-protected files too; an absent one is no error. A link is
// removed, its target is not: each object is opened itself, checked and removed through its handle, and a folder is
// held while it is emptied. Throws for "remove_all"; everything removed until then stays removed.
void RemoveAll(const std::wstring& path);

// True if the path itself is a link to a file or a folder. Cloud files and deduplicated files are no links.
bool IsLink(const std::wstring& path);

// True if the path or a folder above it is a link.
bool CrossesLink(const std::wstring& path);

// Opens a folder so that it cannot be renamed or removed until the handle is closed; `furtherAccess` is added to the
// rights. Returns none, with the last error set, if the path is a link, is no folder or cannot be opened.
FileHandle HoldFolder(const std::wstring& path, DWORD furtherAccess = 0);

// A folder that can be neither renamed nor turned into a link.
struct HeldFolder
{
    FileHandle folder;
    FileHandle keeper;  // a file in it, because an empty folder can be turned into a link; gone with its handle
};

// Holds a folder and, if possible, creates a file in it. Returns none, with the last error set, when HoldFolder does,
// and when the path leads elsewhere by then.
HeldFolder HoldWithKeeper(const std::wstring& path);

// Opens a file so that it cannot be written, renamed or removed until the handle is closed. Tries again for
// up to a second while another program has it open for one of these. Returns none if the file cannot be opened.
FileHandle HoldFile(const std::wstring& path);

// True if an open object is inside an open folder, at any depth, wherever the paths lead by now. `spelling` says
// whether both were opened by paths with the same beginning (FILE_NAME_OPENED) or any (FILE_NAME_NORMALIZED). On a file
// system without names for open folders, FILE_NAME_OPENED gives true as long as the folder is no link, because a held
// folder cannot be renamed. In all other cases, false if a name cannot be read.
bool IsBelow(HANDLE object, HANDLE folder, DWORD spelling = FILE_NAME_OPENED);

// True if an open folder that has not been listed yet contains one object, of that name.
bool ContainsOnly(HANDLE folder, const std::wstring& name);

// True if a file-system object of any type exists there; links are followed. Throws for "exists" if Windows gives an
// error other than absence.
bool Exists(const std::wstring& path);

// True if an object other than a folder exists there. False if that cannot be examined, for instance because a card
// reader is empty or a share is gone. Does not throw.
bool FileExists(const std::wstring& path);

// True if both paths lead to the same object on the same volume, however they are spelled. If the redirection guard
// refuses to follow one of them, compares their texts. Throws for "equivalent" if one of them cannot be opened.
bool SameObject(const std::wstring& first, const std::wstring& second);

// Full path of the first folder directly below `folder`, in the file system's order, for whose name `wanted` is true;
// an empty path if there is none. Links to folders count as folders. Throws for
// "directory_iterator::directory_iterator" if the folder cannot be listed, "directory_iterator::operator++" if the
// listing breaks off, and "directory_entry::status" if the type of an entry cannot be read.
std::filesystem::path FindSubfolder(const std::wstring& folder, bool (*wanted)(const std::wstring& name));
}  // namespace repair
