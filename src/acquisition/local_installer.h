// The installer that a driver package may contain.
#pragma once

#include <filesystem>
#include <string>

namespace repair
{
// Returns the path that an installer would have in the first subfolder, in the file system's order, whose name begins
// with "B" or "b", or an empty path if there is no such subfolder. Later ones are never searched. Throws
// std::filesystem::filesystem_error if the folder cannot be listed. Logs nothing.
std::filesystem::path FindInstallerInFolder(const std::wstring& folder);

// Returns the full path of the installer in a driver package, or an empty text if it has none or `folder` is empty.
// Throws std::filesystem::filesystem_error if the folder cannot be searched. Logs nothing.
std::wstring FindLocalInstaller(std::wstring folder);
}  // namespace repair
