// The small borderless window that shows what the tool is doing.
#pragma once

#include <atomic>
#include <thread>

#include <windows.h>

namespace repair
{
// The codes of SetStatus; any other code shows an empty line.
inline constexpr int kStatusChecking = 0;
inline constexpr int kStatusDownloading = 1;
inline constexpr int kStatusInstalling = 2;

// Owned by the flow that shows it. The window and its message loop have a thread of their own, so that the flow can
// block. Without a module instance every operation does nothing.
struct StatusWindow
{
    HINSTANCE instance = nullptr;
    bool silent = false;                 // the window exists but is never shown
    std::atomic<HWND> dialog = nullptr;  // null until created
    std::atomic<bool> ready = false;     // the message loop is about to start
    std::thread thread;
    std::atomic<bool> stop = false;
    std::atomic<DWORD> threadId = 0;

    StatusWindow() = default;
    ~StatusWindow();  // ends the window if an exception leaves the flow
    StatusWindow(const StatusWindow&) = delete;
    StatusWindow& operator=(const StatusWindow&) = delete;
    StatusWindow(StatusWindow&&) = delete;
    StatusWindow& operator=(StatusWindow&&) = delete;
};

// Starts the window thread and waits until the window is ready, two seconds at most. Throws std::system_error if no
// thread can be started. Logs nothing.
void StartStatusWindow(StatusWindow& window, HINSTANCE instance, bool silent);

// Sets the status line before it returns.
void SetStatus(StatusWindow& window, int status);

// Ends the window and waits for its thread. May be called more than once.
void StopStatusWindow(StatusWindow& window) noexcept;
}  // namespace repair
