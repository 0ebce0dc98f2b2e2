// What a case can have done to the program while it runs.
#pragma once
#include <windows.h>

#include <string>

namespace watcher
{
// Keys and clicks go through the system's own input queue, as a user's would.
bool PressKey(const std::wstring& name);               // return, escape, space, tab, f4, or a virtual-key number
bool Click(HWND window, const std::wstring& where);    // a control id, or "x,y" from the window's corner
bool Drag(HWND window, const std::wstring& distance);  // "dx,dy", from the middle of the window
bool CrashThreadOf(HWND window);                       // its thread goes on where no code is
bool CloseWindowByMenu(HWND window);                   // what Alt+F4 does
}  // namespace watcher
