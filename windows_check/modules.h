// The DLLs in this process.
#pragma once

#include <string>
#include <vector>

namespace windows_check
{
// Full paths, without the program itself, in the order in which they were loaded.
std::vector<std::wstring> LoadedModules();
}  // namespace windows_check
