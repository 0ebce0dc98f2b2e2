// The switches of the command line: process-wide, set once at the start and read by the flows of this folder.
#pragma once

#include <string>

#include <windows.h>

namespace repair
{
inline bool Force = false;          // "-FORCE", "-FORCEVLTUWP": repair the same release too
inline bool ForceUwp = false;       // "-FORCEVLTUWP": install the Store edition
inline bool Silent = false;         // "-SILENT": no window, no message box
inline bool VltMode = false;        // "-VLT" and ...
inline bool InstallMode = false;    // ... "-Install": install the file of "-Path" without the checks
inline std::wstring InstallerPath;  // "-Path FILE"
inline HINSTANCE AppInstance = nullptr;

// Sets the switches from the process's command line and logs it. Letter case does not matter; unknown arguments are
// ignored. Throws what the log throws.
void ReadCommandLine();
}  // namespace repair
