// The installer that a driver package may carry.
#pragma once

#include <filesystem>
#include <string>

namespace repair
{
// Where the installer would stand: in the first subfolder, in the file system's order, whose name begins with "B" or
// "b". Other such folders are never looked at. Empty when there is no such subfolder. Throws
// std::filesystem::filesystem_error when the folder cannot be listed. Logs nothing.
std::filesystem::path FindInstallerInFolder(const std::wstring& folder);

// Full path of the installer in a driver package, or an empty text when it has none or `folder` is empty.
// Throws std::filesystem::filesystem_error when the folder cannot be looked at. Logs nothing.
std::wstring FindLocalInstaller(std::wstring folder);
}  // namespace repair
