#include "ui/result_message.h"

#include <climits>

#include "support/box_recorder.h"
#include "support/test.h"

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

class ResultMessageCalls : public testing::Test
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

// Proves: Codes 0 to 7 => each its text, icon and flags; the status window is hidden first, the hook is set before and removed after
// Proves: After the box => the hook is gone
// Proves: Any other code, negative ones too => nothing is shown or hidden, the hook is set and removed
TEST_F(ResultMessageCalls, ShowTheBoxOfAKnownCodeAfterHidingTheWindowAndWithTheHookAroundIt)
{
    for (const ResultMessage& message : kMessages)
    {
        SCOPED_TRACE(message.code);
        calls_.clear();
        boxes_.boxes.clear();
        ShowResultMessage(window_, message.code);
        if (message.text.empty())
        {
            EXPECT_THAT(boxes_.boxes, IsEmpty());
            EXPECT_THAT(calls_, ElementsAre("hook", "unhook"));
        }
        else
        {
            EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{message.text, message.flags}));
            EXPECT_THAT(calls_, ElementsAre("hook", "hide", "box", "unhook"));
        }
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

    const HINSTANCE instance_ = GetModuleHandleW(nullptr);
    int code_ = 0;
    LPARAM parameter_ = 0;
    std::vector<WPARAM> icons_;
    HICON icon_ = reinterpret_cast<HICON>(0x1C0);
    SUBSTITUTE(LoadIconW)
    load_{[this](HINSTANCE instance, const wchar_t* name) {
        EXPECT_EQ(std::tuple(instance, reinterpret_cast<UINT_PTR>(name)), std::tuple(instance_, 101u));
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
// Proves: The icon cannot be loaded => nothing is sent
TEST_F(MessageIconHookTest, PutsTheIconOnADialogThatBeginsBigFirstAndPassesEverythingOn)
{
    StatusWindow window;
    window.instance = instance_;
    ShowResultMessage(window, -1);  // tells the hook whose icon it is
    EXPECT_EQ(Call(0, 0x110), 77);
    EXPECT_THAT(std::exchange(icons_, {}), ElementsAre(1u, 0u));
    for (const auto& [code, message] : {std::pair(0, 0x10Fu), std::pair(0, 0x111u), std::pair(0, 0x80u),
                                        std::pair(0, 1u), std::pair(-1, 0x110u), std::pair(3, 0x110u)})
    {
        EXPECT_EQ(Call(code, message), 77);
    }
    icon_ = nullptr;
    EXPECT_EQ(Call(0, 0x110), 77);
    EXPECT_THAT(icons_, IsEmpty());
}

}  // namespace
}  // namespace repair
