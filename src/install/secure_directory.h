// The folder that an elevated program unpacks into and installs from.
#pragma once

#include <string>

#include <windows.h>

#include "base/files.h"

namespace repair
{
// Removes `folder` and creates it again. Administrators and the system have all rights in it; the user of the tool's
// session may read, run and delete but not add files; no rights are inherited. Administrators own it where the process
// may give it to them. A marker file in it stays open until the process ends, so that the folder cannot be replaced.
// If another program is quicker to create the folder, or it is not the one that was made (its owner, inherited rights,
// other files, another place), all this is done once more. Holds the folder above in `parent`, unless that holds it
// already or it cannot be held. Returns 0, or GetLastError on failure; if the rights cannot be prepared, an old folder
// stays. Throws std::filesystem::filesystem_error if the parent folders cannot be created or a link replaces the folder
// both times ("create_directories"), or the old folder cannot be removed ("remove_all"). Logs nothing.
DWORD CreateSecureDirectory(const std::wstring& folder, HeldFolder& parent);
}  // namespace repair
