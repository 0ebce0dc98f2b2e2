#include "ui/result_message.h"

#include <iterator>

#include <windows.h>

#include "resources/resource_ids.h"
#include "ui/constants.h"

namespace repair
{
namespace
{
struct ResultBox
{
    const wchar_t* text;
    UINT flags;
};

constexpr UINT kPlain = MB_SETFOREGROUND;
constexpr UINT kError = MB_ICONERROR | MB_SETFOREGROUND;
constexpr UINT kInformation = MB_ICONINFORMATION | MB_SETFOREGROUND;

// By result code.
constexpr ResultBox kResultBoxes[] = {
    {L"Another instance is running.", kPlain},
    {L"Unable to detect active Tavik Display Driver.", kError},
    {L"The version of Tavik Software installed is already a compatible version. "
     L"Please check if the Tavik Display Driver is working correctly.",
     kInformation},
    {L"There is no Tavik Software application installed.", kInformation},
    {L"Error downloading Tavik Software", kError},
    {L"Error installing Tavik Software.", kError},
    {L"Update failed. Please visit " TAVIK_WEB_SITE L" to install the appropriate driver.", kError},
    {L"Finished installing Tavik Software", kInformation},
};

// Global, because a hook procedure gets no context of its own.
HHOOK iconHook = nullptr;
HINSTANCE iconInstance = nullptr;
}  // namespace

LRESULT CALLBACK MessageIconHook(int code, WPARAM wParam, LPARAM lParam)
{
    if (code == HC_ACTION)
    {
        const CWPSTRUCT& call = *reinterpret_cast<const CWPSTRUCT*>(lParam);
        if (call.message == WM_INITDIALOG)
        {
            const HICON icon = LoadIconW(iconInstance, MAKEINTRESOURCEW(IDI_TOOL));
            if (icon != nullptr)
            {
                SendMessageW(call.hwnd, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon));
                SendMessageW(call.hwnd, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(icon));
            }
        }
    }
    return CallNextHookEx(iconHook, code, wParam, lParam);
}

void ShowResultMessage(const StatusWindow& window, int code) noexcept
{
    iconInstance = window.instance;
    iconHook = SetWindowsHookExW(WH_CALLWNDPROC, MessageIconHook, nullptr, GetCurrentThreadId());
    if (static_cast<unsigned>(code) < std::size(kResultBoxes))
    {
        const ResultBox& box = kResultBoxes[static_cast<unsigned>(code)];
        ShowWindow(window.dialog, SW_HIDE);
        MessageBoxW(nullptr, box.text, kCaption, box.flags);
    }
    UnhookWindowsHookEx(iconHook);
}
}  // namespace repair
