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

// Hides the status window, shows the box of a result code with the tool's icon and waits until the user closes it. Does
// nothing for an unknown code, a negative one too. Logs nothing, never throws.
void ShowResultMessage(const StatusWindow& window, int code) noexcept;

// The hook of the calling thread (WH_CALLWNDPROC) that sets the icon of the box while it is created.
LRESULT CALLBACK MessageIconHook(int code, WPARAM wParam, LPARAM lParam);
}  // namespace repair
