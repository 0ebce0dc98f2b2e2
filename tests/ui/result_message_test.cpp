#include "ui/result_message.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/box_recorder.h"
#include "support/substitute.h"

using testing::ElementsAre;
using testing::IsEmpty;

IMPORTED(CallNextHookEx, LoadIconW, SendMessageW, SetWindowsHookExW, ShowWindow, UnhookWindowsHookEx)

namespace repair
{
namespace
{
// A code, its text (empty: no box) and flags.
struct ResultMessage
{
    int code;
    std::wstring text = {};
    UINT flags = 0;

    friend void PrintTo(const ResultMessage& message, std::ostream* stream) { *stream << message.code; }
};

const ResultMessage kMessages[] = {
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
    {-1},
    {8},
    {100},
    {INT_MAX},
    {INT_MIN},
};

class ResultMessageCalls : public testing::TestWithParam<ResultMessage>
{
protected:
    ResultMessageCalls()
    {
        window_.dialog = reinterpret_cast<HWND>(0x4711);
        boxes_.onBox = [this] { calls_.push_back("box"); };
    }

    StatusWindow window_;
    std::vector<std::string> calls_;
    BoxRecorder boxes_;
    const HHOOK hook_ = reinterpret_cast<HHOOK>(0x815);
    SUBSTITUTE(SetWindowsHookExW)
    set_{[this](int kind, HOOKPROC procedure, HINSTANCE module, DWORD thread) {
        calls_.push_back("hook");
        EXPECT_EQ(procedure, &MessageIconHook);
        EXPECT_EQ(std::tuple(kind, module, thread), std::tuple(4, nullptr, GetCurrentThreadId()));
        return hook_;
    }};
    SUBSTITUTE(UnhookWindowsHookEx)
    remove_{[this](HHOOK hook) {
        calls_.push_back("unhook");
        EXPECT_EQ(hook, hook_);
        return TRUE;
    }};
    SUBSTITUTE(ShowWindow)
    show_{[this](HWND shown, int command) {
        calls_.push_back("hide");
        EXPECT_EQ(std::tuple(shown, command), std::tuple(window_.dialog.load(), 0));
        return TRUE;
    }};
};
INSTANTIATE_TEST_SUITE_P(Codes, ResultMessageCalls, testing::ValuesIn(kMessages));

// Proves: Codes 0 to 7 => each its text, icon and flags; the status window is hidden first, the hook is set before and removed after
// Proves: Any other code, negative ones too => nothing is shown or hidden, the hook is set and removed
TEST_P(ResultMessageCalls, ShowTheBoxOfAKnownCodeAfterHidingTheWindowAndWithTheHookAroundIt)
{
    ShowResultMessage(window_, GetParam().code);
    if (GetParam().text.empty())
    {
        EXPECT_THAT(boxes_.boxes, IsEmpty());
        EXPECT_THAT(calls_, ElementsAre("hook", "unhook"));
    }
    else
    {
        EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{GetParam().text, GetParam().flags}));
        EXPECT_THAT(calls_, ElementsAre("hook", "hide", "box", "unhook"));
    }
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
        EXPECT_EQ(reinterpret_cast<UINT_PTR>(name), 101u);
        return icon_;
    }};
    SUBSTITUTE(SendMessageW)
    send_{[this](HWND window, UINT message, WPARAM kind, LPARAM icon) {
        EXPECT_EQ(std::tuple(window, message, icon),
                  std::tuple(reinterpret_cast<HWND>(0x99), 0x80u, reinterpret_cast<LPARAM>(icon_)));
        icons_.push_back(kind);
        return LRESULT{0};
    }};
    SUBSTITUTE(CallNextHookEx)
    next_{[this](HHOOK, int code, WPARAM first, LPARAM second) {
        EXPECT_EQ(std::tuple(code, first, second), std::tuple(code_, 5u, parameter_));
        return LRESULT{77};
    }};
};

// Proves: The hook sees a dialog begin => it sends the icon, large first; it leaves all other messages and codes alone
TEST_F(MessageIconHookTest, PutsTheIconOnADialogThatBeginsBigFirst)
{
    EXPECT_EQ(Call(0, 0x110), 77);
    EXPECT_THAT(icons_, ElementsAre(1u, 0u));
}

TEST_F(MessageIconHookTest, LeavesOtherMessagesAndHookCodesAlone)
{
    for (const UINT message : {0x10Fu, 0x111u, 0x80u, 1u})
    {
        EXPECT_EQ(Call(0, message), 77);
    }
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

// Waits for the box of this process, reads it and presses OK.
BoxOnScreen ReadAndClose()
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

using RealBox = testing::TestWithParam<int>;
INSTANTIATE_TEST_SUITE_P(Codes, RealBox, testing::Values(0, 1, 2));

// Proves: A box appears => it carries the tool's icon in both sizes and one button
// Proves: Code 0 => no icon in the body, but one in the title bar
TEST_P(RealBox, CarriesTheToolsIconInBothSizesAndOneButton)
{
    StatusWindow window;
    window.instance = GetModuleHandleW(nullptr);
    BoxOnScreen seen;
    std::thread watcher([&seen] { seen = ReadAndClose(); });
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
    std::thread watcher([&seen] { seen = ReadAndClose(); });
    MessageBoxW(nullptr, L"not the tool's", L"other", MB_OK);
    watcher.join();
    EXPECT_EQ(seen.title, L"other");
    EXPECT_EQ(seen.bigIcon, nullptr);
}
}  // namespace
}  // namespace repair
