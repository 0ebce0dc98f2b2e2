// The status window as the tool makes it (never shown here), timers, hooks, scaling. One small box appears and closes
// itself.
#include <windows.h>

#include <string>
#include <vector>

#include "base/library.h"
#include "resources/resource_ids.h"
#include "ui/status_window.h"
#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
// The tool's window in silent mode, for the length of one question.
template <typename Ask>
Seen OfStatusWindow(Ask ask)
{
    repair::StatusWindow window;
    repair::StartStatusWindow(window, GetModuleHandleW(nullptr), true);
    Need(window.dialog.load() != nullptr, L"the window could not be made");
    Seen seen = ask(window.dialog.load());
    repair::StopStatusWindow(window);
    return seen;
}

FACT(windows, ready_and_ends)
{
    repair::StatusWindow window;
    const ULONGLONG start = GetTickCount64();
    repair::StartStatusWindow(window, GetModuleHandleW(nullptr), true);
    const bool isReady = window.ready;
    const ULONGLONG then = GetTickCount64();
    repair::StopStatusWindow(window);
    const ULONGLONG end = GetTickCount64();
    return {std::wstring(isReady ? L"ready" : L"not ready in two seconds") +
                (end - then < 2000 ? L", ends" : L", ends late"),
            Number(then - start) + L" ms, " + Number(end - then) + L" ms"};
}

FACT(windows, dialog_size)
{
    return OfStatusWindow([](HWND dialog) -> Seen {
        RECT wanted = {0, 0, 286, 72};  // dialog units of the template
        MapDialogRect(dialog, &wanted);
        RECT client = {};
        GetClientRect(dialog, &client);
        const std::wstring pixels = Number(client.right) + L" x " + Number(client.bottom) + L" pixels";
        return {client.right == wanted.right && client.bottom == wanted.bottom ? L"286 x 72 units" : pixels, pixels};
    });
}

std::wstring FaceOf(HWND window)
{
    const HFONT font = reinterpret_cast<HFONT>(SendMessageW(window, WM_GETFONT, 0, 0));
    const HDC context = GetDC(window);
    const HGDIOBJ before = SelectObject(context, font);
    wchar_t face[LF_FACESIZE] = {};
    GetTextFaceW(context, LF_FACESIZE, face);
    SelectObject(context, before);
    ReleaseDC(window, context);
    return face;
}

FACT(windows, fonts)
{
    return OfStatusWindow([](HWND dialog) {
        return Joined({FaceOf(GetDlgItem(dialog, IDC_STATUS)), FaceOf(GetDlgItem(dialog, IDC_HEADING)),
                       FaceOf(GetDlgItem(dialog, IDC_PROGRESS))},
                      L", ");
    });
}

FACT(windows, background)
{
    return OfStatusWindow([](HWND dialog) {
        const HWND last = GetWindow(GetWindow(dialog, GW_CHILD), GW_HWNDLAST);
        const DWORD style = static_cast<DWORD>(GetWindowLongW(last, GWL_STYLE));
        const bool isPicture = (style & SS_TYPEMASK) == SS_BITMAP;
        RECT client = {};
        RECT own = {};
        GetClientRect(dialog, &client);
        GetWindowRect(last, &own);
        const bool isWhole = own.right - own.left == client.right && own.bottom - own.top == client.bottom;
        return std::wstring(isPicture ? L"below all others" : L"not below") +
               (isWhole ? L", fills the window" : L", another size");
    });
}

// Waits up to three seconds for a message of a timer.
bool WaitForTimer(HWND window, MSG& message)
{
    const ULONGLONG end = GetTickCount64() + 3000;
    while (GetTickCount64() < end)
    {
        if (PeekMessageW(&message, window, WM_TIMER, WM_TIMER, PM_REMOVE) != 0)
        {
            return true;
        }
        Sleep(5);
    }
    return false;
}

// Set anew under the id of the message, as the tool does at each step.
FACT(windows, timer_id)
{
    const HWND window = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    std::vector<std::wstring> ids;
    std::wstring detail;
    UINT_PTR id = 0;
    for (int i = 0; i < 2; ++i)
    {
        const UINT_PTR returned = SetTimer(window, id, 20, nullptr);
        MSG message = {};
        const bool hasCome = WaitForTimer(window, message);
        ids.emplace_back(!hasCome                     ? L"no timer"
                         : message.wParam == id       ? L"asked for"
                         : message.wParam == returned ? L"returned"
                                                      : L"another");
        detail += L"returned " + Number(returned) + L", came " + Number(message.wParam) + L" ";
        id = message.wParam;
    }
    KillTimer(window, id);
    DestroyWindow(window);
    return {Joined(ids, L", then "), detail};
}

std::wstring seenOfBox;  // by the hook

LRESULT CALLBACK WatchBox(int code, WPARAM wParam, LPARAM lParam)
{
    const CWPSTRUCT& call = *reinterpret_cast<const CWPSTRUCT*>(lParam);
    if (code == HC_ACTION && call.message == WM_INITDIALOG)
    {
        wchar_t name[16] = {};
        GetClassNameW(call.hwnd, name, 16);
        const LPARAM icon = reinterpret_cast<LPARAM>(LoadIconW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDI_TOOL)));
        SendMessageW(call.hwnd, WM_SETICON, ICON_BIG, icon);
        const bool hasIcon = icon != 0 && SendMessageW(call.hwnd, WM_GETICON, ICON_BIG, 0) == icon;
        seenOfBox += L"[" + std::wstring(name) + (hasIcon ? L", takes an icon]" : L", takes no icon]");
        // A lone button need not carry the number of "OK".
        PostMessageW(FindWindowExW(call.hwnd, nullptr, L"Button", nullptr), BM_CLICK, 0, 0);
        PostMessageW(call.hwnd, WM_CLOSE, 0, 0);
    }
    return CallNextHookEx(nullptr, code, wParam, lParam);
}

FACT(windows, hook_sees_box)
{
    Need(ThisPc().isInteractive, L"a user could not see a window in this session");
    const HHOOK hook = SetWindowsHookExW(WH_CALLWNDPROC, WatchBox, nullptr, GetCurrentThreadId());
    const int result = MessageBoxW(nullptr, L"This box closes itself.", L"Tavik Windows check", MB_OK);
    UnhookWindowsHookEx(hook);
    return {seenOfBox, L"result " + Number(result)};
}

FACT(windows, unscaled_thread)
{
    using SetAwareness = void*(WINAPI*)(void*);
    auto* const set =
        repair::LookUpFunction<SetAwareness>(GetModuleHandleW(L"user32.dll"), "SetThreadDpiAwarenessContext");
    Need(set != nullptr, L"this Windows does not have the function");
    void* const before = set(reinterpret_cast<void*>(INT_PTR{-1}));
    const HDC screen = GetDC(nullptr);
    const int dots = GetDeviceCaps(screen, LOGPIXELSY);
    ReleaseDC(nullptr, screen);
    void* const own = before == nullptr ? nullptr : set(before);
    return Number(dots) + (before != nullptr && own != nullptr ? L", given back" : L", not given back");
}
}  // namespace
}  // namespace windows_check
