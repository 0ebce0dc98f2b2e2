// The folder that an elevated program unpacks into and installs from.
#pragma once

#include <string>

#include <windows.h>

namespace repair
{
// Removes `folder` and creates it again. Administrators and the system have all rights in it; the user of the tool's
// session may read, run and delete but not add files; no rights are inherited. Administrators own it where the process
// may give it to them. A marker file in it stays open until the process ends, so that the folder cannot be replaced.
// If the path leads to another folder by then, all this is done once more.
// Returns 0, or GetLastError on failure; if the rights cannot be prepared, an old folder stays. Throws
// std::filesystem::filesystem_error if the parent folders cannot be created ("create_directories") or the old folder
// cannot be removed ("remove_all"). Logs nothing.
DWORD CreateSecureDirectory(const std::wstring& folder);
}  // namespace repair
