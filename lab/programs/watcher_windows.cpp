#include "watcher_windows.h"

#include "lab_file.h"
#include "watcher_hook.h"

namespace watcher
{
namespace
{
constexpr int kStatusLine = 1004;
constexpr int kDots = 1005;
constexpr int kHeading = 1013;
constexpr int kMinimiseMark = 1014;

// Reads what the system keeps as the window's text. It sends no message, so the watched thread is not disturbed.
std::wstring TextOf(HWND window)
{
    wchar_t text[1024] = L"";
    InternalGetWindowText(window, text, 1024);
    return text;
}

std::wstring ClassOf(HWND window)
{
    wchar_t name[64] = L"";
    GetClassNameW(window, name, 64);
    return name;
}

std::vector<HWND> DialogsOf(DWORD process)
{
    std::vector<HWND> found;
    HWND window = nullptr;
    while ((window = FindWindowExW(nullptr, window, L"#32770", nullptr)) != nullptr)
    {
        DWORD owner = 0;
        GetWindowThreadProcessId(window, &owner);
        if (owner == process)
        {
            found.push_back(window);
        }
    }
    return found;
}

std::vector<HWND> ChildrenOf(HWND window)
{
    std::vector<HWND> children;
    for (HWND child = GetWindow(window, GW_CHILD); child != nullptr; child = GetWindow(child, GW_HWNDNEXT))
    {
        children.push_back(child);
    }
    return children;
}

INT_PTR Property(HWND window, const wchar_t* name)
{
    return reinterpret_cast<INT_PTR>(GetPropW(window, name));
}

// The hook asks inside the process. The answers are properties of the window.
bool Ask(HWND window, HMODULE hook)
{
    const auto procedure = reinterpret_cast<HOOKPROC>(reinterpret_cast<void*>(GetProcAddress(hook, "WatcherHook")));
    const DWORD thread = GetWindowThreadProcessId(window, nullptr);
    const HHOOK handle = SetWindowsHookExW(WH_CALLWNDPROC, procedure, hook, thread);
    if (handle == nullptr)
    {
        return false;
    }
    DWORD_PTR ignored = 0;
    SendMessageTimeoutW(window, RegisterWindowMessageW(kAskMessage), 0, 0, SMTO_ABORTIFHUNG, 1000, &ignored);
    UnhookWindowsHookEx(handle);
    return Property(window, kBodyIconProperty) != 0 && Property(window, kTitleIconProperty) != 0;
}

const char* TitleIconOf(HWND window)
{
    const char* const titles[] = {"none", "big", "small", "big and small"};
    return titles[Property(window, kTitleIconProperty) - 1];
}

Json Place(const RECT& place)
{
    return {
        {"x", place.left}, {"y", place.top}, {"width", place.right - place.left}, {"height", place.bottom - place.top}};
}

Json TextIn(HWND window, int id)
{
    return standin::ToUtf8(TextOf(FindControl(window, id)));
}

Json DescribeControl(HWND parent, HWND control)
{
    RECT place{};
    GetWindowRect(control, &place);
    MapWindowPoints(nullptr, parent, reinterpret_cast<POINT*>(&place), 2);
    Json described = {
        {"id", GetDlgCtrlID(control)},
        {"class", standin::ToUtf8(ClassOf(control))},
        {"text", standin::ToUtf8(TextOf(control))},
        {"style", static_cast<DWORD>(GetWindowLongW(control, GWL_STYLE))},
        {"extended", static_cast<DWORD>(GetWindowLongW(control, GWL_EXSTYLE))},
        {"font", static_cast<int>(Property(control, kFontHeightProperty)) - 1},
    };
    described.update(Place(place));
    return described;
}
}  // namespace

HWND FindControl(HWND window, int id)
{
    for (HWND child : ChildrenOf(window))
    {
        if (GetDlgCtrlID(child) == id)
        {
            return child;
        }
    }
    return nullptr;
}

StatusView FindStatusWindow(DWORD process)
{
    StatusView view;
    for (HWND window : DialogsOf(process))
    {
        if (view.window == nullptr && FindControl(window, kStatusLine) != nullptr)
        {
            view.window = window;
        }
    }
    RECT place{};
    GetWindowRect(view.window, &place);
    view.visible = IsWindowVisible(view.window) != 0;
    view.minimised = IsIconic(view.window) != 0;
    view.line = TextOf(FindControl(view.window, kStatusLine));
    view.seen = {
        {"exists", view.window != nullptr},
        {"visible", view.visible},
        {"minimised", view.minimised},
        {"title", standin::ToUtf8(TextOf(view.window))},
        {"line", standin::ToUtf8(view.line)},
        {"dots", TextIn(view.window, kDots)},
        {"heading", TextIn(view.window, kHeading)},
        {"mark", TextIn(view.window, kMinimiseMark)},
    };
    view.seen.update(Place(place));
    return view;
}

std::vector<HWND> FindBoxes(DWORD process)
{
    std::vector<HWND> boxes;
    for (HWND window : DialogsOf(process))
    {
        if (IsWindowVisible(window) == 0)
        {
            continue;
        }
        for (HWND child : ChildrenOf(window))
        {
            if (lstrcmpiW(ClassOf(child).c_str(), L"Button") == 0)
            {
                boxes.push_back(window);
                break;
            }
        }
    }
    return boxes;
}

void Describe(Box& box, HMODULE hook)
{
    std::wstring text;
    Json buttons = Json::array();
    for (HWND child : ChildrenOf(box.window))
    {
        const std::wstring name = ClassOf(child);
        const LONG style = GetWindowLongW(child, GWL_STYLE);
        if (lstrcmpiW(name.c_str(), L"Button") == 0)
        {
            if ((style & WS_VISIBLE) != 0)
            {
                buttons.push_back(standin::ToUtf8(TextOf(child)));
            }
        }
        else if (lstrcmpiW(name.c_str(), L"Static") == 0 && (style & SS_TYPEMASK) != SS_ICON)
        {
            text += TextOf(child);
        }
    }
    const char* const kinds[] = {"none", "error", "information", "warning", "question", "other"};
    box.asked = Ask(box.window, hook);
    box.seen = {
        {"caption", standin::ToUtf8(TextOf(box.window))},
        {"text", standin::ToUtf8(text)},
        {"icon", box.asked ? kinds[Property(box.window, kBodyIconProperty) - 1] : ""},
        {"title_icon", box.asked ? TitleIconOf(box.window) : ""},
        {"buttons", buttons},
    };
}

Json LookAt(HWND window, HMODULE hook)
{
    if (!Ask(window, hook))
    {
        return nullptr;
    }
    RECT client{};
    GetClientRect(window, &client);
    Json controls = Json::array();
    for (HWND child : ChildrenOf(window))
    {
        controls.push_back(DescribeControl(window, child));
    }
    return {
        {"title", standin::ToUtf8(TextOf(window))},
        {"title_icon", TitleIconOf(window)},
        {"style", static_cast<DWORD>(GetWindowLongW(window, GWL_STYLE))},
        {"extended", static_cast<DWORD>(GetWindowLongW(window, GWL_EXSTYLE))},
        {"width", client.right},
        {"height", client.bottom},
        {"controls", controls},
    };
}
}  // namespace watcher
