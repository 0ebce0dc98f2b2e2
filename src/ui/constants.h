// Title, font sizes and times of the window and the boxes. Texts: result_message.cpp, status_window.cpp.
#pragma once

#include <windows.h>

namespace repair
{
// Title of the status window and of every box.
inline constexpr wchar_t kCaption[] = L"Tavik Software Compatibility Tool";

inline constexpr DWORD kReadyPollMs = 100;    // the start checks the ready flag at this interval ...
inline constexpr int kReadyPolls = 20;        // ... and this many times: two seconds at most
inline constexpr UINT kProgressStepMs = 500;  // one step of the dots
inline constexpr int kHeadingPoints = 20;     // point size of the heading line
inline constexpr int kSmallPoints = 12;       // point size of the dots and of the minimise mark
}  // namespace repair
