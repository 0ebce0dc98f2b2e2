// The one way of running another program.
#pragma once

#include <cstdint>
#include <string>

#include <windows.h>

namespace repair
{
// Opens `file` hidden through the shell with `parameters` as they are and waits up to `timeoutMs` (INFINITE: without
// limit). A program that is still running then goes on. `workingDirectory` may be null.
// Returns the exit code (259 while it is still running) or, when it could not be started or asked, the Win32 error
// code; the two cannot be told apart. Writes exactly one log line. Throws only what memory allocation and the log
// throw.
std::int32_t LaunchProcess(const std::wstring& file, const std::wstring& parameters, DWORD timeoutMs,
                           const wchar_t* workingDirectory);
}  // namespace repair
