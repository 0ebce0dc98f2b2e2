// The system's text for an error code.
#pragma once

#include <string>

#include <windows.h>

namespace repair
{
// Returns the system's text for a Win32, SetupAPI or WinINet error code or an HRESULT, unchanged (it usually ends in a
// blank), or an empty text if there is none. Logs nothing.
std::wstring FormatSystemMessage(DWORD code);
}  // namespace repair
