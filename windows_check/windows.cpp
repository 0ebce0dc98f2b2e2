// The status window as the tool makes it (never shown here), timers, hooks, scaling. One small box appears and closes
// itself.
#include <windows.h>

#include <string>

#include "base/library.h"
#include "resources/resource_ids.h"
#include "ui/status_window.h"
#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr wchar_t kNotInteractive[] = L"a user could not see a window in this session";

// The tool's window in silent mode, for the length of one question.
template <typename Ask>
Seen OfStatusWindow(Ask ask)
{
    repair::StatusWindow window;
    repair::StartStatusWindow(window, GetModuleHandleW(nullptr), true);
    if (window.dialog.load() == nullptr)
    {
        return Saw(L"no window");
    }
    Seen seen = ask(window.dialog.load());
    repair::StopStatusWindow(window);
    return seen;
}

FACT(windows, ready)
{
    repair::StatusWindow window;
    const ULONGLONG start = GetTickCount64();
    repair::StartStatusWindow(window, GetModuleHandleW(nullptr), true);
    const ULONGLONG then = GetTickCount64() - start;
    const bool isReady = window.ready;
    repair::StopStatusWindow(window);
    return Saw(isReady ? L"ready" : L"not ready in two seconds", Number(then) + L" ms");
}

FACT(windows, ends)
{
    repair::StatusWindow window;
    repair::StartStatusWindow(window, GetModuleHandleW(nullptr), true);
    if (!window.ready)
    {
        return Saw(L"no window that could end");
    }
    const ULONGLONG start = GetTickCount64();
    repair::StopStatusWindow(window);
    const ULONGLONG then = GetTickCount64() - start;
    return Saw(then < 2000 ? L"at once" : L"late", Number(then) + L" ms");
}

FACT(windows, dialog_size)
{
    return OfStatusWindow([](HWND dialog) {
        RECT wanted = {0, 0, 286, 72};  // dialog units of the template
        MapDialogRect(dialog, &wanted);
        RECT client = {};
        GetClientRect(dialog, &client);
        const bool isEqual = client.right == wanted.right && client.bottom == wanted.bottom;
        return Saw(isEqual ? L"286 x 72 units" : Number(client.right) + L" x " + Number(client.bottom) + L" pixels",
                   Number(client.right) + L" x " + Number(client.bottom) + L" pixels");
    });
}

FACT(windows, dialog_style)
{
    return OfStatusWindow([](HWND dialog) {
        const DWORD style = static_cast<DWORD>(GetWindowLongW(dialog, GWL_STYLE));
        constexpr DWORD kWanted = WS_POPUP | WS_MINIMIZEBOX;
        return Saw(
            (style & kWanted) == kWanted && (style & (WS_SYSMENU | WS_THICKFRAME)) == 0 && (style & WS_VISIBLE) == 0
                ? L"no caption, can be minimised, hidden"
                : Hex(style),
            Hex(style));
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

FACT(windows, dialog_font)
{
    return OfStatusWindow([](HWND dialog) { return Saw(FaceOf(GetDlgItem(dialog, IDC_STATUS))); });
}

FACT(windows, other_fonts)
{
    return OfStatusWindow([](HWND dialog) {
        return Saw(FaceOf(GetDlgItem(dialog, IDC_HEADING)) + L", " + FaceOf(GetDlgItem(dialog, IDC_PROGRESS)));
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
        return Saw(std::wstring(isPicture ? L"below all others" : L"not below") +
                   (isWhole ? L", fills the window" : L", another size"));
    });
}

FACT(windows, banner)
{
    const HBITMAP bitmap = LoadBitmapW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDB_BANNER));
    BITMAP found = {};
    GetObjectW(bitmap, sizeof(found), &found);
    DeleteObject(bitmap);
    return Saw(Number(found.bmWidth) + L" x " + Number(found.bmHeight));
}

FACT(windows, icon)
{
    return OfStatusWindow([](HWND dialog) {
        const LRESULT big = SendMessageW(dialog, WM_GETICON, ICON_BIG, 0);
        const LRESULT small = SendMessageW(dialog, WM_GETICON, ICON_SMALL, 0);
        return Saw(YesNo(big != 0) + L" " + YesNo(small != 0));
    });
}

FACT(windows, status_text)
{
    return OfStatusWindow([](HWND dialog) {
        wchar_t text[64] = {};
        GetDlgItemTextW(dialog, IDC_STATUS, text, 64);
        return Saw(text);
    });
}

// Takes messages until one fits or a second has passed.
template <typename Fits>
bool WaitForMessage(MSG& message, Fits fits)
{
    const ULONGLONG end = GetTickCount64() + 3000;
    while (GetTickCount64() < end)
    {
        if (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) == 0)
        {
            Sleep(5);
        }
        else if (fits())
        {
            return true;
        }
        else
        {
            DispatchMessageW(&message);
        }
    }
    return false;
}

FACT(windows, timer_id)
{
    const HWND window = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    const UINT_PTR result = SetTimer(window, 0, 20, nullptr);
    MSG message = {};
    const bool hasCome = WaitForMessage(message, [&] { return message.message == WM_TIMER && message.hwnd == window; });
    const WPARAM id = message.wParam;
    // Armed again under the same id, as the tool does at each step.
    SetTimer(window, 0, 20, nullptr);
    const bool hasComeAgain =
        WaitForMessage(message, [&] { return message.message == WM_TIMER && message.hwnd == window; });
    KillTimer(window, 0);
    DestroyWindow(window);
    return Saw(hasCome ? L"id " + Number(id) + (hasComeAgain ? L", again and again" : L", once") : L"no timer",
               L"SetTimer returned " + Number(result));
}

FACT(windows, thread_message)
{
    MSG message = {};
    PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // makes the queue
    PostThreadMessageW(GetCurrentThreadId(), WM_CLOSE, 0, 0);
    const bool hasCome = WaitForMessage(message, [&] { return message.message == WM_CLOSE; });
    return Saw(!hasCome ? L"no message" : message.hwnd == nullptr ? L"without a window" : L"for a window");
}

struct Box
{
    int initDialogs = 0;
    bool isDialogClass = false;
    bool hasIcon = false;
    int result = 0;
};
Box* watched = nullptr;

LRESULT CALLBACK WatchBox(int code, WPARAM wParam, LPARAM lParam)
{
    const CWPSTRUCT& call = *reinterpret_cast<const CWPSTRUCT*>(lParam);
    if (code == HC_ACTION && call.message == WM_INITDIALOG && watched != nullptr)
    {
        ++watched->initDialogs;
        wchar_t name[16] = {};
        GetClassNameW(call.hwnd, name, 16);
        watched->isDialogClass = std::wstring(name) == L"#32770";
        const LPARAM icon = reinterpret_cast<LPARAM>(LoadIconW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDI_TOOL)));
        SendMessageW(call.hwnd, WM_SETICON, ICON_BIG, icon);
        watched->hasIcon = icon != 0 && SendMessageW(call.hwnd, WM_GETICON, ICON_BIG, 0) == icon;
        // A lone button need not carry the number of "OK".
        PostMessageW(FindWindowExW(call.hwnd, nullptr, L"Button", nullptr), BM_CLICK, 0, 0);
        PostMessageW(call.hwnd, WM_CLOSE, 0, 0);
    }
    return CallNextHookEx(nullptr, code, wParam, lParam);
}

// One box for both facts.
const Box& ShownBox()
{
    static const Box box = [] {
        Box seen;
        watched = &seen;
        const HHOOK hook = SetWindowsHookExW(WH_CALLWNDPROC, WatchBox, nullptr, GetCurrentThreadId());
        seen.result = MessageBoxW(nullptr, L"This box closes itself.", L"Tavik Windows check", MB_OK);
        UnhookWindowsHookEx(hook);
        watched = nullptr;
        return seen;
    }();
    return box;
}

FACT(windows, hook_sees_box)
{
    Need(ThisPc().isInteractive, kNotInteractive);
    const Box& box = ShownBox();
    return Saw(Number(box.initDialogs) + (box.isDialogClass ? L", a dialog" : L", another window"),
               L"result " + Number(box.result));
}

FACT(windows, box_takes_icon)
{
    Need(ThisPc().isInteractive, kNotInteractive);
    return Saw(YesNo(ShownBox().hasIcon));
}

FACT(windows, unscaled_thread)
{
    using SetAwareness = void*(WINAPI*)(void*);
    auto* const set =
        repair::LookUpFunction<SetAwareness>(GetModuleHandleW(L"user32.dll"), "SetThreadDpiAwarenessContext");
    if (set == nullptr)
    {
        return Saw(L"no such function");
    }
    void* const before = set(reinterpret_cast<void*>(INT_PTR{-1}));
    const HDC screen = GetDC(nullptr);
    const int dots = GetDeviceCaps(screen, LOGPIXELSY);
    ReleaseDC(nullptr, screen);
    void* const own = before == nullptr ? nullptr : set(before);
    return Saw(Number(dots) + (before != nullptr && own != nullptr ? L", given back" : L", not given back"));
}
}  // namespace
}  // namespace windows_check
