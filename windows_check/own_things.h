// What this program makes on the PC: one temporary folder, one volatile registry key. Both are removed at the end.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

#include "base/handles.h"

namespace windows_check
{
// Makes both and enters them into ThisPc(). Returns false if that fails. The folder is closed to other users and cannot
// be renamed or removed while the program runs; where it could not be closed, `isFolderOurs` stays false.
bool MakeOwnThings();

// Removes both, and what failed checks have left in them; never follows links. Returns false if something is left. May
// be called more than once, from any thread.
bool RemoveOwnThings();

// The reason that a check gives for starting no program from the own folder: other users could replace the program.
inline constexpr wchar_t kFolderIsOpen[] =
    L"the program's temporary folder could not be closed to other users, so nothing is started from it";

// Makes a folder for one check below the own folder and returns its full path. Throws std::runtime_error if that fails.
std::wstring MakeFolder(const std::wstring& name);

// Writes the bytes as they are into a new file and returns its path. Throws std::runtime_error if that fails.
std::wstring WriteBytes(const std::wstring& path, std::string_view bytes);

// The bytes of a file that others may be writing; none if it cannot be read.
std::string ReadBytes(const std::wstring& path);

// True for a file, folder or link there. The full path may have any length.
bool IsThere(const std::wstring& path);

// What the token of this process says; empty if it cannot be read.
std::vector<BYTE> TokenInformation(TOKEN_INFORMATION_CLASS what);

// Keeps an existing file open.
repair::FileHandle Hold(const std::wstring& path, DWORD access, DWORD share);
}  // namespace windows_check
