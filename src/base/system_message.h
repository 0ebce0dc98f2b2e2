// The system's own words for an error code.
#pragma once

#include <string>

#include <windows.h>

namespace repair
{
// The message text of a Win32, SetupAPI or WinINet error code or of an HRESULT, exactly as long as the system gives it
// (it usually ends in a blank). Empty when there is no text. Logs nothing.
std::wstring FormatSystemMessage(DWORD code);
}  // namespace repair
