// Download of a release's installer over HTTP or HTTPS.
#pragma once

#include <string>

namespace repair
{
// Fetches the installer of a release from the server folder into the download folder below the user's temporary folder
// and returns the file's full path; what is there is not checked in any way. Blocks for the whole transfer.
//
// Every failure of the transfer is logged and gives an empty text; what arrived stays behind under the temporary name
// until the next call. Throws std::system_error (with the WinINet code) when the session or the connection cannot be
// opened, and std::filesystem::filesystem_error when the folder cannot be created or an old file cannot be removed.
// When the final rename fails the path comes back all the same.
std::wstring DownloadInstaller(std::wstring release);
}  // namespace repair
