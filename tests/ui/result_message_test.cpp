#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "support/box_recorder.h"
#include "support/substitute.h"
#include "ui/result_message.h"

using testing::ElementsAre;
using testing::IsEmpty;

IMPORTED(ShowWindow)
IMPORTED(SetWindowsHookExW)
IMPORTED(UnhookWindowsHookEx)
IMPORTED(CallNextHookEx)
IMPORTED(SendMessageW)
IMPORTED(LoadIconW)

namespace repair
{
namespace
{
struct Message
{
    int code;
    std::wstring text;
    UINT flags;
};

void PrintTo(const Message& message, std::ostream* stream)
{
    *stream << message.code;
}

const Message kMessages[] = {
    {0, L"Another instance is running.", 0x10000},
    {1, L"Unable to detect active Tavik Display Driver.", 0x10010},
    {2,
     L"The version of Tavik Software installed is already a compatible version. Please check if the Tavik Display "
     L"Driver is working correctly.",
     0x10040},
    {3, L"There is no Tavik Software application installed.", 0x10040},
    {4, L"Error downloading Tavik Software", 0x10010},
    {5, L"Error installing Tavik Software.", 0x10010},
    {6, L"Update failed. Please visit www.tavik.example to install the appropriate driver.", 0x10010},
    {7, L"Finished installing Tavik Software", 0x10040},
};

// The calls of one message, in order.
class MessageCalls
{
public:
    StatusWindow window;
    std::vector<std::string> calls;
    BoxRecorder boxes;

    MessageCalls()
    {
        window.dialog = reinterpret_cast<HWND>(0x4711);
        boxes.onBox = [this] { calls.push_back("box"); };
    }

private:
    const HHOOK hook_ = reinterpret_cast<HHOOK>(0x815);
    SUBSTITUTE(SetWindowsHookExW)
    set_{[this](int kind, HOOKPROC procedure, HINSTANCE module, DWORD thread) {
        calls.push_back("hook");
        EXPECT_EQ(kind, 4);
        EXPECT_EQ(procedure, &MessageIconHook);
        EXPECT_EQ(module, nullptr);
        EXPECT_EQ(thread, GetCurrentThreadId());
        return hook_;
    }};
    SUBSTITUTE(UnhookWindowsHookEx)
    remove_{[this](HHOOK hook) {
        calls.push_back("unhook");
        EXPECT_EQ(hook, hook_);
        return TRUE;
    }};
    SUBSTITUTE(ShowWindow)
    show_{[this](HWND shown, int command) {
        calls.push_back("hide");
        EXPECT_EQ(shown, window.dialog);
        EXPECT_EQ(command, 0);
        return TRUE;
    }};
};

class KnownCode : public testing::TestWithParam<Message>
{
};
INSTANTIATE_TEST_SUITE_P(Codes, KnownCode, testing::ValuesIn(kMessages));

// Proves: Codes 0 to 7 => each its text, icon and flags; the status window is hidden first, the hook is set before and removed after
TEST_P(KnownCode, ShowsItsBoxAfterHidingTheWindowAndWithTheHookAroundIt)
{
    MessageCalls message;
    ShowResultMessage(message.window, GetParam().code);
    EXPECT_THAT(message.boxes.boxes, ElementsAre(BoxRecorder::Box{GetParam().text, GetParam().flags}));
    EXPECT_THAT(message.calls, ElementsAre("hook", "hide", "box", "unhook"));
}

class UnknownCode : public testing::TestWithParam<int>
{
};
INSTANTIATE_TEST_SUITE_P(Codes, UnknownCode, testing::Values(-1, 8, 100, INT_MAX, INT_MIN));

// Proves: Any other code, negative ones too => nothing is shown or hidden, the hook is set and removed
TEST_P(UnknownCode, ShowsNothingAndHidesNothingButSetsAndRemovesTheHook)
{
    MessageCalls message;
    ShowResultMessage(message.window, GetParam());
    EXPECT_THAT(message.boxes.boxes, IsEmpty());
    EXPECT_THAT(message.calls, ElementsAre("hook", "unhook"));
}

// --- The hook by itself
class MessageIconHookTest : public testing::Test
{
protected:
    LRESULT Call(int code, UINT message)
    {
        CWPSTRUCT call = {};
        call.message = message;
        call.hwnd = reinterpret_cast<HWND>(0x99);
        parameter_ = reinterpret_cast<LPARAM>(&call);
        code_ = code;
        return MessageIconHook(code, 5, parameter_);
    }

    int code_ = 0;
    LPARAM parameter_ = 0;
    std::vector<WPARAM> icons_;
    HICON icon_ = reinterpret_cast<HICON>(0x1C0);
    SUBSTITUTE(LoadIconW)
    load_{[this](HINSTANCE instance, const wchar_t* name) {
        EXPECT_EQ(instance, nullptr);  // no message was shown before
        EXPECT_EQ(name, MAKEINTRESOURCEW(101));
        return icon_;
    }};
    SUBSTITUTE(SendMessageW)
    send_{[this](HWND window, UINT message, WPARAM kind, LPARAM icon) {
        EXPECT_EQ(window, reinterpret_cast<HWND>(0x99));
        EXPECT_EQ(message, 0x80u);
        EXPECT_EQ(icon, reinterpret_cast<LPARAM>(icon_));
        icons_.push_back(kind);
        return LRESULT{0};
    }};
    SUBSTITUTE(CallNextHookEx)
    next_{[this](HHOOK, int code, WPARAM first, LPARAM second) {
        EXPECT_EQ(code, code_);
        EXPECT_EQ(first, 5u);
        EXPECT_EQ(second, parameter_);
        return LRESULT{77};
    }};
};

// Proves: The hook sees a dialog begin => it sends the icon, large first; it leaves all other messages and codes alone
TEST_F(MessageIconHookTest, PutsTheIconOnADialogThatBeginsBigFirst)
{
    EXPECT_EQ(Call(0, 0x110), 77);
    EXPECT_THAT(icons_, ElementsAre(1u, 0u));
}

TEST_F(MessageIconHookTest, LeavesOtherMessagesAlone)
{
    for (const UINT message : {0x10Fu, 0x111u, 0x80u, 1u})
    {
        EXPECT_EQ(Call(0, message), 77);
    }
    EXPECT_THAT(icons_, IsEmpty());
}

TEST_F(MessageIconHookTest, LeavesOtherHookCodesAlone)
{
    EXPECT_EQ(Call(-1, 0x110), 77);
    EXPECT_EQ(Call(3, 0x110), 77);
    EXPECT_THAT(icons_, IsEmpty());
}

// Proves: The icon cannot be loaded => nothing is sent
TEST_F(MessageIconHookTest, WithoutAnIconSendsNothing)
{
    icon_ = nullptr;
    EXPECT_EQ(Call(0, 0x110), 77);
    EXPECT_THAT(icons_, IsEmpty());
}

// --- A real box
struct BoxOnScreen
{
    std::wstring title;
    HICON bigIcon = nullptr;
    HICON smallIcon = nullptr;
    bool hasBodyIcon = false;
    int buttons = 0;
};

// Waits for the box of this process, looks at it and presses OK.
BoxOnScreen LookAndClose()
{
    HWND box = nullptr;
    for (int waited = 0; box == nullptr && waited < 3000; waited += 5)
    {
        Sleep(5);
        for (HWND window = nullptr; (window = FindWindowExW(nullptr, window, L"#32770", nullptr)) != nullptr;)
        {
            DWORD process = 0;
            GetWindowThreadProcessId(window, &process);
            if (process == GetCurrentProcessId() && IsWindowVisible(window) != FALSE &&
                FindWindowExW(window, nullptr, L"Button", nullptr) != nullptr)
            {
                box = window;
            }
        }
    }
    BoxOnScreen seen;
    if (box == nullptr)
    {
        ADD_FAILURE() << "no box appeared";
        return seen;
    }
    wchar_t title[100] = {};
    SendMessageW(box, WM_GETTEXT, 100, reinterpret_cast<LPARAM>(title));
    seen.title = title;
    seen.bigIcon = reinterpret_cast<HICON>(SendMessageW(box, WM_GETICON, ICON_BIG, 0));
    seen.smallIcon = reinterpret_cast<HICON>(SendMessageW(box, WM_GETICON, ICON_SMALL, 0));
    seen.hasBodyIcon = SendDlgItemMessageW(box, 1088, STM_GETICON, 0, 0) != 0;
    HWND last = nullptr;
    for (HWND button = nullptr; (button = FindWindowExW(box, button, L"Button", nullptr)) != nullptr; last = button)
    {
        ++seen.buttons;
    }
    PostMessageW(last, BM_CLICK, 0, 0);  // a lone button need not carry the number of "OK"
    return seen;
}

class RealBox : public testing::TestWithParam<int>
{
};
INSTANTIATE_TEST_SUITE_P(Codes, RealBox, testing::Values(0, 1, 2));

// Proves: A box appears => it carries the tool's icon in both sizes and one button
// Proves: Code 0 => no icon in the body, but one in the title bar
TEST_P(RealBox, CarriesTheToolsIconInBothSizesAndOneButton)
{
    StatusWindow window;
    window.instance = GetModuleHandleW(nullptr);
    BoxOnScreen seen;
    std::thread watcher([&seen] { seen = LookAndClose(); });
    ShowResultMessage(window, GetParam());
    watcher.join();
    const HICON icon = LoadIconW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(101));
    ASSERT_NE(icon, nullptr);
    EXPECT_EQ(seen.title, L"Tavik Software Compatibility Tool");
    EXPECT_EQ(seen.bigIcon, icon);
    EXPECT_EQ(seen.smallIcon, icon);
    EXPECT_EQ(seen.buttons, 1);
    EXPECT_EQ(seen.hasBodyIcon, GetParam() != 0);  // code 0 has no icon in its body
}

// Proves: After the box => the hook is gone
TEST(ShowResultMessage, HookIsGoneAfterwards)
{
    StatusWindow window;
    window.instance = GetModuleHandleW(nullptr);
    ShowResultMessage(window, -1);
    BoxOnScreen seen;
    std::thread watcher([&seen] { seen = LookAndClose(); });
    MessageBoxW(nullptr, L"not the tool's", L"other", MB_OK);
    watcher.join();
    EXPECT_EQ(seen.title, L"other");
    EXPECT_EQ(seen.bigIcon, nullptr);
}
}  // namespace
}  // namespace repair
