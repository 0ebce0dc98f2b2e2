#include "watcher_actions.h"

#include <cwchar>

#include "watcher_windows.h"

namespace watcher
{
namespace
{
bool SendMouse(DWORD flags)
{
    INPUT input{};
    input.type = INPUT_MOUSE;
    input.mi.dwFlags = flags;
    return SendInput(1, &input, sizeof input) == 1;
}

bool SendKey(WORD key, DWORD flags)
{
    INPUT input{};
    input.type = INPUT_KEYBOARD;
    input.ki.wVk = key;
    input.ki.dwFlags = flags;
    return SendInput(1, &input, sizeof input) == 1;
}

bool ReadPair(const std::wstring& text, int& x, int& y)
{
    return std::swscanf(text.c_str(), L"%d,%d", &x, &y) == 2;
}
}  // namespace

bool PressKey(const std::wstring& name)
{
    WORD key = 0;
    if (name == L"return")
        key = VK_RETURN;
    else if (name == L"escape")
        key = VK_ESCAPE;
    else if (name == L"space")
        key = VK_SPACE;
    else if (name == L"tab")
        key = VK_TAB;
    else
        key = static_cast<WORD>(std::wcstoul(name.c_str(), nullptr, 0));
    return key != 0 && SendKey(key, 0) && SendKey(key, KEYEVENTF_KEYUP);
}

bool Click(HWND window, const std::wstring& where)
{
    RECT place{};
    int x = 0;
    int y = 0;
    if (ReadPair(where, x, y))
    {
        GetWindowRect(window, &place);
        x += place.left;
        y += place.top;
    }
    else
    {
        const HWND control = FindControl(window, static_cast<int>(std::wcstol(where.c_str(), nullptr, 10)));
        if (control == nullptr)
            return false;
        GetWindowRect(control, &place);
        x = (place.left + place.right) / 2;
        y = (place.top + place.bottom) / 2;
    }
    return SetCursorPos(x, y) != 0 && SendMouse(MOUSEEVENTF_LEFTDOWN) && SendMouse(MOUSEEVENTF_LEFTUP);
}

namespace
{
// Whether a window of the thread follows the pointer. Gives up after a while: not every window can be moved.
void AwaitMoving(DWORD thread, bool isMoving)
{
    constexpr DWORD kPatienceMs = 1500;
    constexpr DWORD kPauseMs = 10;
    for (DWORD waited = 0; waited < kPatienceMs; waited += kPauseMs)
    {
        GUITHREADINFO info{};
        info.cbSize = sizeof info;
        if (GetGUIThreadInfo(thread, &info) != 0 && ((info.flags & GUI_INMOVESIZE) != 0) == isMoving)
            return;
        Sleep(kPauseMs);
    }
}
}  // namespace

bool Drag(HWND window, const std::wstring& distance)
{
    int dx = 0;
    int dy = 0;
    RECT place{};
    if (!ReadPair(distance, dx, dy) || GetWindowRect(window, &place) == 0)
        return false;
    const int x = (place.left + place.right) / 2;
    const int y = (place.top + place.bottom) / 2;
    const DWORD thread = GetWindowThreadProcessId(window, nullptr);
    SetCursorPos(x, y);
    bool sent = SendMouse(MOUSEEVENTF_LEFTDOWN);
    AwaitMoving(thread, true);  // the pointer must not move before the window follows it
    for (int step = 1; step <= 4; ++step)
    {
        SetCursorPos(x + dx * step / 4, y + dy * step / 4);
        Sleep(30);
    }
    sent = SendMouse(MOUSEEVENTF_LEFTUP) && sent;
    AwaitMoving(thread, false);  // what is done next begins where the window is by then
    return sent;
}

bool CrashThreadOf(HWND window)
{
    constexpr DWORD kAccess = THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_SET_CONTEXT;
    const HANDLE thread = OpenThread(kAccess, FALSE, GetWindowThreadProcessId(window, nullptr));
    if (thread == nullptr)
        return false;
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    SuspendThread(thread);
    bool done = GetThreadContext(thread, &context) != 0;
    context.Rip = 8;
    done = done && SetThreadContext(thread, &context) != 0;
    ResumeThread(thread);
    CloseHandle(thread);
    PostMessageW(window, WM_NULL, 0, 0);  // it may wait for a message
    return done;
}

bool CloseWindowByMenu(HWND window)
{
    return PostMessageW(window, WM_SYSCOMMAND, SC_CLOSE, 0) != 0;
}
}  // namespace watcher
