// What this program makes on the machine: one temporary folder, one volatile registry key. Both are removed at the end.
#pragma once

#include <string>
#include <string_view>

namespace windows_check
{
// Makes both and enters them into ThisMachine(). False when that is not possible. The folder is closed to other users,
// and cannot be renamed or removed while the program runs; where that did not work `isFolderOurs` stays false.
bool MakeOwnThings();

// Removes both, also what checks that failed have left in them; links are never followed. False when something is left.
// May be called more than once, from any thread.
bool RemoveOwnThings();

// The console shows UTF-8 from here on, and what it showed before: it outlives this program. Giving it back may be done
// more than once, from any thread.
void TakeConsole();
void GiveConsoleBack();

// What a check says instead of starting a program from the own folder, or in it, when that is open to other users.
inline constexpr wchar_t kFolderIsOpen[] =
    L"the program's temporary folder could not be closed to other users, so nothing is started from it";

// A folder for one check, below the own folder; its full path.
std::wstring MakeFolder(const std::wstring& name);

// Writes the bytes as they are into a new file; its folder must be there. Throws std::runtime_error when it cannot.
std::wstring WriteBytes(const std::wstring& path, std::string_view bytes);
}  // namespace windows_check
