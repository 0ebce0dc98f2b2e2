#include "ui/status_window.h"

#include <iterator>

#include <windows.h>

#include "base/library.h"
#include "base/owned.h"
#include "resources/resource_ids.h"
#include "ui/constants.h"

namespace repair
{
namespace
{
constexpr const wchar_t* kProgressTexts[] = {L"\u25C9 \u25CB \u25CB", L"\u25CB \u25C9 \u25CB", L"\u25CB \u25CB \u25C9"};
constexpr wchar_t kMinimiseMark[] = L"\u2014";
constexpr COLORREF kTextColour = RGB(240, 255, 255);

// The id that is asked for. The messages carry this one or the one that SetTimer returns; systems differ.
constexpr UINT_PTR kProgressTimer = 0;
constexpr WPARAM kMoveByDragging = 0xF012;  // SC_MOVE as the system sends it when a caption is dragged

// By status code.
constexpr const wchar_t* kStatusTexts[] = {L"Checking System.", L"Downloading compatible version of Tavik Software.",
                                           L"Installing..."};

const wchar_t* StatusText(int status)
{
    return static_cast<unsigned>(status) < std::size(kStatusTexts) ? kStatusTexts[status] : L"";
}

// The artwork is drawn for 96 dots per inch, so the system must scale the whole window on other screens. The functions
// are newer than the oldest Windows 10, so they are looked up. The destructor restores the thread's settings.
class UnscaledThread
{
public:
    UnscaledThread()
    {
        const HMODULE user = GetModuleHandleW(L"User32");
        setHosting_ = LookUpFunction<SetHosting>(user, "SetThreadDpiHostingBehavior");
        setAwareness_ = LookUpFunction<SetAwareness>(user, "SetThreadDpiAwarenessContext");
        if (setAwareness_ != nullptr)
        {
            awareness_ = setAwareness_(reinterpret_cast<void*>(INT_PTR{-1}));  // DPI_AWARENESS_CONTEXT_UNAWARE
        }
        if (setHosting_ != nullptr)
        {
            hosting_ = setHosting_(1);  // DPI_HOSTING_BEHAVIOR_MIXED
        }
    }
    ~UnscaledThread()
    {
        if (setHosting_ != nullptr)
        {
            setHosting_(hosting_);
        }
        if (setAwareness_ != nullptr)
        {
            setAwareness_(awareness_);
        }
    }
    UnscaledThread(const UnscaledThread&) = delete;
    UnscaledThread& operator=(const UnscaledThread&) = delete;
    UnscaledThread(UnscaledThread&&) = delete;
    UnscaledThread& operator=(UnscaledThread&&) = delete;

private:
    using SetAwareness = void*(WINAPI*)(void*);
    using SetHosting = int(WINAPI*)(int);

    SetAwareness setAwareness_ = nullptr;
    SetHosting setHosting_ = nullptr;
    void* awareness_ = nullptr;
    int hosting_ = 0;
};

// Light text without a background, so that the picture shows behind it.
INT_PTR CALLBACK StatusDialogProcedure(HWND, UINT message, WPARAM wParam, LPARAM)
{
    if (message != WM_CTLCOLORSTATIC)
    {
        return 0;
    }
    const HDC context = reinterpret_cast<HDC>(wParam);
    SetTextColor(context, kTextColour);
    SetBkMode(context, TRANSPARENT);
    return reinterpret_cast<INT_PTR>(GetStockObject(NULL_BRUSH));
}

HWND CreateStatusDialog(HINSTANCE instance)
{
    const HWND dialog = CreateDialogParamW(instance, MAKEINTRESOURCEW(IDD_STATUS), nullptr, StatusDialogProcedure, 0);
    const LPARAM icon = reinterpret_cast<LPARAM>(LoadIconW(instance, MAKEINTRESOURCEW(IDI_TOOL)));
    SendMessageW(dialog, WM_SETICON, ICON_BIG, icon);
    SendMessageW(dialog, WM_SETICON, ICON_SMALL, icon);
    SetWindowTextW(dialog, kCaption);
    return dialog;
}

// The picture that fills the client area; null if the control cannot be created.
HWND CreateBackground(HWND dialog, HINSTANCE instance)
{
    RECT client = {};
    GetClientRect(dialog, &client);
    const HWND background =
        CreateWindowExW(0, L"STATIC", L"", WS_CHILD | SS_REALSIZECONTROL | SS_BITMAP, 0, 0, client.right - client.left,
                        client.bottom - client.top, dialog, nullptr, instance, nullptr);
    if (background != nullptr)
    {
        const LPARAM bitmap = reinterpret_cast<LPARAM>(LoadBitmapW(instance, MAKEINTRESOURCEW(IDB_BANNER)));
        SendMessageW(background, STM_SETIMAGE, IMAGE_BITMAP, bitmap);
    }
    return background;
}

struct FontKind
{
    using Handle = HFONT;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle font) noexcept { DeleteObject(font); }
};
using Font = Owned<FontKind>;

Font MakeFont(int points, int dotsPerInch)
{
    return Font(CreateFontW(-MulDiv(points, dotsPerInch, 72), 0, 0, 0, FW_NORMAL, 0, 0, 0, 0, 0, 0, 0, 0, L"Segoe UI"));
}

void SetFont(HWND dialog, int control, const Font& font)
{
    SendDlgItemMessageW(dialog, control, WM_SETFONT, reinterpret_cast<WPARAM>(font.Get()), TRUE);
}

int VerticalDotsPerInch(HWND control)
{
    const HDC context = GetDC(control);
    const int dots = GetDeviceCaps(context, LOGPIXELSY);
    ReleaseDC(control, context);
    return dots;
}

// Handles mouse messages before their dispatch: a click on the mark minimises, any other click drags the window.
void HandleMouse(const MSG& message, HWND dialog)
{
    const bool onMark = message.hwnd == GetDlgItem(dialog, IDC_MINIMISE);
    if (message.message == WM_MOUSEMOVE && onMark)
    {
        SetCursor(LoadCursorW(nullptr, IDC_HAND));
    }
    else if (message.message == WM_LBUTTONDOWN)
    {
        ReleaseCapture();
        SendMessageW(dialog, WM_SYSCOMMAND, onMark ? SC_MINIMIZE : kMoveByDragging, 0);
    }
}

void RunMessageLoop(StatusWindow& window, HWND dialog, HWND background, UINT_PTR returnedTimer)
{
    size_t progress = 0;
    MSG message = {};
    while (GetMessageW(&message, nullptr, 0, 0) >= 1)
    {
        switch (message.message)
        {
            case WM_MOUSEMOVE:
            case WM_LBUTTONDOWN:
                HandleMouse(message, dialog);
                break;
            case WM_TIMER:
                if (message.hwnd == background && (message.wParam == kProgressTimer || message.wParam == returnedTimer))
                {
                    progress = (progress + 1) % std::size(kProgressTexts);
                    SetDlgItemTextW(dialog, IDC_PROGRESS, kProgressTexts[progress]);
                    InvalidateRect(dialog, nullptr, FALSE);
                    SetTimer(background, message.wParam, kProgressStepMs, nullptr);
                }
                break;
            case WM_DESTROY:
            case WM_CLOSE:
            case WM_QUIT:
                return;
            default:
                break;
        }
        TranslateMessage(&message);
        DispatchMessageW(&message);
        // The system's own message loop during a drag loses a WM_CLOSE posted to the thread, so a flag is needed too.
        MSG next = {};
        if (PeekMessageW(&next, nullptr, 0, 0, PM_NOREMOVE) == 0 && window.stop)
        {
            return;
        }
    }
}

void RunStatusWindow(StatusWindow& window)
{
    window.threadId = GetCurrentThreadId();
    SetThreadErrorMode(SEM_FAILCRITICALERRORS, nullptr);  // as the main thread does
    const UnscaledThread unscaled;

    const HWND dialog = CreateStatusDialog(window.instance);
    window.dialog = dialog;
    const HWND background = CreateBackground(dialog, window.instance);
    if (background == nullptr)
    {
        return;
    }
    if (!window.silent)
    {
        ShowWindow(background, SW_SHOW);
        ShowWindow(dialog, SW_SHOW);
    }
    SetDlgItemTextW(dialog, IDC_PROGRESS, kProgressTexts[0]);
    SetDlgItemTextW(dialog, IDC_STATUS, L"");
    SetDlgItemTextW(dialog, IDC_HEADING, L"");
    SetStatus(window, kStatusChecking);

    const int dotsPerInch = VerticalDotsPerInch(GetDlgItem(dialog, IDC_HEADING));
    const Font headingFont = MakeFont(kHeadingPoints, dotsPerInch);
    const Font smallFont = MakeFont(kSmallPoints, dotsPerInch);
    if (!headingFont)
    {
        return;
    }
    SetFont(dialog, IDC_HEADING, headingFont);
    SetFont(dialog, IDC_PROGRESS, smallFont);
    SetFont(dialog, IDC_MINIMISE, smallFont);
    SetDlgItemTextW(dialog, IDC_MINIMISE, kMinimiseMark);
    SetWindowLongW(dialog, GWL_STYLE, GetWindowLongW(dialog, GWL_STYLE) | WS_MINIMIZEBOX);

    const UINT_PTR returnedTimer = SetTimer(background, kProgressTimer, kProgressStepMs, nullptr);
    window.ready = true;
    RunMessageLoop(window, dialog, background, returnedTimer);
    // The dialog is not destroyed: it ends with this thread.
}
}  // namespace

StatusWindow::~StatusWindow()
{
    StopStatusWindow(*this);
}

void StartStatusWindow(StatusWindow& window, HINSTANCE instance, bool silent)
{
    window.instance = instance;
    window.silent = silent;
    if (instance == nullptr)
    {
        return;
    }
    window.thread = std::thread([&window] { RunStatusWindow(window); });
    for (int polls = 0; polls < kReadyPolls && !window.ready; ++polls)
    {
        Sleep(kReadyPollMs);
    }
}

void SetStatus(StatusWindow& window, int status)
{
    if (window.instance == nullptr)
    {
        return;
    }
    const HWND dialog = window.dialog;
    SetDlgItemTextW(dialog, IDC_STATUS, StatusText(status));
    if (dialog != nullptr)  // without a window InvalidateRect would repaint the whole screen
    {
        InvalidateRect(dialog, nullptr, FALSE);
    }
}

void StopStatusWindow(StatusWindow& window) noexcept
{
    if (window.thread.joinable())
    {
        window.stop = true;
        PostThreadMessageW(window.threadId, WM_CLOSE, 0, 0);
        window.thread.join();
    }
}
}  // namespace repair
