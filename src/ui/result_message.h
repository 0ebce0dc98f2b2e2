// The message box that ends a run.
#pragma once

#include <windows.h>

#include "ui/status_window.h"

namespace repair
{
inline constexpr int kMessageAnotherInstance = 0;
inline constexpr int kMessageNoDriver = 1;
inline constexpr int kMessageAlreadyCompatible = 2;
inline constexpr int kMessageNotInstalled = 3;
inline constexpr int kMessageDownloadFailed = 4;
inline constexpr int kMessageInstallFailed = 5;
inline constexpr int kMessageUpdateFailed = 6;
inline constexpr int kMessageFinished = 7;

// Hides the status window, shows the box of a result code and waits until the user closes it. The box carries the
// tool's icon. An unknown code (a negative one too) shows nothing and leaves the window as it is. Logs nothing, never
// throws.
void ShowResultMessage(const StatusWindow& window, int code) noexcept;

// The hook that puts the icon on the box while it is being created (WH_CALLWNDPROC, of the calling thread).
LRESULT CALLBACK MessageIconHook(int code, WPARAM wParam, LPARAM lParam);
}  // namespace repair
