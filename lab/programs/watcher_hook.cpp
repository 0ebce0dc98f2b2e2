// Loaded into the watched program for a moment, because only its own process can ask a window for its icon.
#include "watcher_hook.h"

namespace
{

const wchar_t* StandardIcons[] = {IDI_ERROR, IDI_INFORMATION, IDI_WARNING, IDI_QUESTION};

// The icon of a message box: 0 for none, from 1 on one of the standard icons, kOtherIcon for another one.
INT_PTR BodyIcon(HWND box)
{
    for (HWND child = GetWindow(box, GW_CHILD); child != nullptr; child = GetWindow(child, GW_HWNDNEXT))
    {
        const LONG style = GetWindowLongW(child, GWL_STYLE);
        wchar_t className[16] = L"";
        GetClassNameW(child, className, 16);
        if (lstrcmpiW(className, L"Static") != 0 || (style & SS_TYPEMASK) != SS_ICON)
        {
            continue;
        }
        const auto icon = reinterpret_cast<HICON>(SendMessageW(child, STM_GETICON, 0, 0));
        if (icon == nullptr)
        {
            continue;
        }
        for (INT_PTR i = 0; i < 4; ++i)
        {
            if (icon == LoadIconW(nullptr, StandardIcons[i]))
            {
                return i + 1;
            }
        }
        return kOtherIcon;
    }
    return 0;
}

// In pixels of the characters; 0 for the system's own font.
INT_PTR FontHeight(HWND control)
{
    LOGFONTW font{};
    const auto handle = reinterpret_cast<HFONT>(SendMessageW(control, WM_GETFONT, 0, 0));
    return handle != nullptr && GetObjectW(handle, sizeof font, &font) != 0 ? -font.lfHeight : 0;
}

void Answer(HWND window)
{
    // 0 would mean "no such property", so every answer is increased by 1.
    SetPropW(window, kBodyIconProperty, reinterpret_cast<HANDLE>(BodyIcon(window) + 1));
    INT_PTR title = 0;
    if (SendMessageW(window, WM_GETICON, ICON_BIG, 0) != 0)
    {
        title |= kTitleIconBig;
    }
    if (SendMessageW(window, WM_GETICON, ICON_SMALL, 0) != 0)
    {
        title |= kTitleIconSmall;
    }
    SetPropW(window, kTitleIconProperty, reinterpret_cast<HANDLE>(title + 1));
    for (HWND child = GetWindow(window, GW_CHILD); child != nullptr; child = GetWindow(child, GW_HWNDNEXT))
    {
        SetPropW(child, kFontHeightProperty, reinterpret_cast<HANDLE>(FontHeight(child) + 1));
    }
}

}  // namespace

extern "C" LRESULT CALLBACK WatcherHook(int code, WPARAM wParam, LPARAM lParam)
{
    if (code == HC_ACTION)
    {
        const auto* sent = reinterpret_cast<const CWPSTRUCT*>(lParam);
        if (sent->message == RegisterWindowMessageW(kAskMessage))
        {
            Answer(sent->hwnd);
        }
    }
    return CallNextHookEx(nullptr, code, wParam, lParam);
}
