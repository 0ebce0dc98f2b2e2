// Download of a release's installer over HTTP or HTTPS.
#pragma once

#include <string>

#include "base/held_installer.h"

namespace repair
{
// Downloads the installer of a release into the download folder below the user's temporary folder and returns the
// file's full path, with the folder held open from before the transfer and the file from its rename on. A link in the
// folder's place is removed first. The downloaded bytes are not checked. Blocks for the whole transfer.
//
// Returns an empty path, after logging, if the transfer fails; a partial file keeps the temporary name until the next
// call. Returns the path even if the final rename fails. Throws std::system_error (with the WinINet code) if the
// session or the connection cannot be opened, and std::filesystem::filesystem_error if the folder cannot be created or
// held, or an old file cannot be removed.
HeldInstaller DownloadInstaller(std::wstring release);
}  // namespace repair
