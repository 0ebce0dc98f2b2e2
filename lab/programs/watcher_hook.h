// How the watcher asks its hook DLL: by a message to a window, answered by properties of that window.
#pragma once
#include <windows.h>

inline constexpr const wchar_t* kAskMessage = L"TavikLabAsk";
inline constexpr const wchar_t* kBodyIconProperty = L"TavikLabBodyIcon";
inline constexpr const wchar_t* kTitleIconProperty = L"TavikLabTitleIcon";
inline constexpr const wchar_t* kFontHeightProperty = L"TavikLabFontHeight";  // of a control
inline constexpr INT_PTR kOtherIcon = 5;
inline constexpr INT_PTR kTitleIconBig = 1;
inline constexpr INT_PTR kTitleIconSmall = 2;

// WH_CALLWNDPROC procedure, exported under this name.
extern "C" LRESULT CALLBACK WatcherHook(int code, WPARAM wParam, LPARAM lParam);
