// The one way of running another program.
#pragma once

#include <cstdint>
#include <string>

#include <windows.h>

namespace repair
{
// Opens `file` hidden through the shell with `parameters` unchanged and waits up to `timeoutMs` (or INFINITE). A
// program still running then is not ended. `workingDirectory` may be null. Returns the exit code (259 while still
// running). If the program cannot be started, or its exit code cannot be read, returns the Win32 error code; by design
// the two look alike. Writes exactly one log line. Throws only what memory allocation and the log throw.
std::int32_t LaunchProcess(const std::wstring& file, const std::wstring& parameters, DWORD timeoutMs,
                           const wchar_t* workingDirectory);
}  // namespace repair
