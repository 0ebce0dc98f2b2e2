// The folder that an elevated program unpacks into and installs from.
#pragma once

#include <string>

#include <windows.h>

namespace repair
{
// Makes `folder` anew: administrators and the system may do everything in it, the user of the tool's session may read,
// run and delete but add nothing; rights of the parent folder do not reach it. Whatever was there before is removed. A
// marker file in it, when it can be had, stays open until the process ends and keeps the folder from being replaced.
// Returns 0, or on failure what GetLastError gives. When the rights cannot be set up nothing is created and nothing
// removed: an old folder stays. Throws std::filesystem::filesystem_error when the parent folders cannot be created
// ("create_directories") or the old folder cannot be removed ("remove_all"). Logs nothing.
DWORD CreateSecureDirectory(const std::wstring& folder);
}  // namespace repair
