// What this program makes on the machine: one temporary folder, one volatile registry key. Both are removed at the end.
#pragma once

#include <string>
#include <string_view>

namespace windows_check
{
// Makes both and enters them into ThisMachine(). False when that is not possible.
bool MakeOwnThings();

// Removes both, also what checks that failed have left in them; links are never followed. False when something is left.
// May be called more than once, from any thread.
bool RemoveOwnThings();

// A folder for one check, below the own folder; its full path.
std::wstring MakeFolder(const std::wstring& name);

// Writes the bytes as they are into a new file; its folder must be there. Throws std::runtime_error when it cannot.
std::wstring WriteBytes(const std::wstring& path, std::string_view bytes);
}  // namespace windows_check
