#include "ui/status_window.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/substitute.h"
#include "support/with_param.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

IMPORTED(CreateDialogParamW, CreateFontW, CreateWindowExW, DeleteObject, DispatchMessageW, GetMessageW,
         GetModuleHandleW, GetProcAddress, InvalidateRect, PostThreadMessageW, ReleaseCapture, SendMessageW, SetCursor,
         SetDlgItemTextW, SetTimer, ShowWindow, Sleep)

namespace repair
{
namespace
{
const std::wstring kDots[] = {L"\u25C9 \u25CB \u25CB", L"\u25CB \u25C9 \u25CB", L"\u25CB \u25CB \u25C9"};

bool WaitUntil(const std::function<bool()>& condition)
{
    for (int waited = 0; waited < 3000; waited += 5)
    {
        if (condition())
        {
            return true;
        }
        Sleep(5);
    }
    return false;
}

std::wstring TextOf(HWND window)
{
    wchar_t text[100] = {};
    SendMessageW(window, WM_GETTEXT, 100, reinterpret_cast<LPARAM>(text));
    return text;
}

std::pair<LONG, LONG> SizeOf(HWND window)
{
    RECT client = {};
    GetClientRect(window, &client);
    return {client.right, client.bottom};
}

class StatusWindowTest : public testing::Test
{
protected:
    void TearDown() override { StopStatusWindow(window_); }

    void Start(bool silent = false) { StartStatusWindow(window_, instance_, silent); }
    HWND Dialog() const { return window_.dialog; }
    HWND Control(int id) const { return GetDlgItem(window_.dialog, id); }
    std::wstring Text(int id) const { return TextOf(Control(id)); }
    HWND Background() const
    {
        for (HWND child = nullptr; (child = FindWindowExW(Dialog(), child, L"STATIC", nullptr)) != nullptr;)
        {
            if (GetDlgCtrlID(child) == 0)
            {
                return child;
            }
        }
        return nullptr;
    }
    LOGFONTW FontOf(int id) const
    {
        LOGFONTW font = {};
        GetObjectW(reinterpret_cast<HFONT>(SendMessageW(Control(id), WM_GETFONT, 0, 0)), sizeof(font), &font);
        return font;
    }
    // True when the window thread ends by itself.
    bool ThreadEnds()
    {
        const HANDLE thread =
            window_.thread.native_handle() != 0 ? OpenThread(SYNCHRONIZE, FALSE, window_.threadId) : nullptr;
        if (thread == nullptr)
        {
            return true;  // gone already
        }
        const bool ended = WaitForSingleObject(thread, 3000) == WAIT_OBJECT_0;
        CloseHandle(thread);
        return ended;
    }

    HINSTANCE instance_ = GetModuleHandleW(nullptr);
    StatusWindow window_;
};

// Proves: It is started => on a thread of its own; the start returns when it is ready, with title, icon, picture, controls and fonts
TEST_F(StatusWindowTest, IsReadyWithItsTitleAndIconWhenTheStartReturns)
{
    Start();
    EXPECT_TRUE(window_.ready);
    EXPECT_EQ(window_.instance, instance_);
    EXPECT_FALSE(window_.silent);
    ASSERT_NE(Dialog(), nullptr);
    EXPECT_EQ(GetWindowThreadProcessId(Dialog(), nullptr), window_.threadId);
    EXPECT_NE(window_.threadId, GetCurrentThreadId());
    EXPECT_EQ(TextOf(Dialog()), L"Tavik Software Compatibility Tool");
    EXPECT_NE(IsWindowVisible(Dialog()), FALSE);
    EXPECT_NE(IsWindowVisible(Background()), FALSE);
    const LRESULT icon = reinterpret_cast<LRESULT>(LoadIconW(instance_, MAKEINTRESOURCEW(101)));
    ASSERT_NE(icon, 0);
    EXPECT_EQ(SendMessageW(Dialog(), WM_GETICON, ICON_BIG, 0), icon);
    EXPECT_EQ(SendMessageW(Dialog(), WM_GETICON, ICON_SMALL, 0), icon);
}

TEST_F(StatusWindowTest, IsAPopupWithoutACaptionThatCanBeMinimised)
{
    Start();
    const DWORD style = static_cast<DWORD>(GetWindowLongW(Dialog(), GWL_STYLE));
    EXPECT_EQ(style & 0x80000C40, 0x80000C40);  // popup, centred, control, own font; Wine drops the border
    EXPECT_EQ(style & WS_DLGFRAME, 0u);         // with the border it would be a caption
    EXPECT_EQ(style & 0x20000, 0x20000u);
    EXPECT_EQ(GetParent(Dialog()), nullptr);
    RECT size = {0, 0, 286, 72};
    MapDialogRect(Dialog(), &size);
    EXPECT_EQ(SizeOf(Dialog()), std::pair(size.right, size.bottom));
}

// --- The controls
struct ExpectedControl
{
    int id;
    RECT place;  // left, top, width, height in dialog units
    DWORD style;
    DWORD extendedStyle;
    std::wstring text;

    friend void PrintTo(const ExpectedControl& control, std::ostream* stream) { *stream << control.id; }
};

const ExpectedControl kControls[] = {{1004, {15, 57, 194, 11}, 0x5002004C, 0x20, L"Checking System."},
                                     {1013, {15, 47, 268, 20}, 0x5002004C, 0x20, L""},
                                     {1005, {216, 57, 63, 11}, 0x50020002, 0x1020, kDots[0]},
                                     {1014, {260, 3, 10, 9}, 0x50020101, 0x20, L"\u2014"}};

// A window whose timer never fires.
class StillWindow : public StatusWindowTest
{
    SUBSTITUTE(SetTimer) noTimer_{[](HWND, UINT_PTR, UINT, TIMERPROC) { return UINT_PTR{1}; }};
};

using StatusWindowControl = WithParam<StillWindow, ExpectedControl>;
INSTANTIATE_TEST_SUITE_P(All, StatusWindowControl, testing::ValuesIn(kControls));

TEST_P(StatusWindowControl, HasItsPlaceStyleAndText)
{
    const ExpectedControl& expected = GetParam();
    Start();
    const HWND control = Control(expected.id);
    ASSERT_NE(control, nullptr);
    wchar_t name[50] = {};
    GetClassNameW(control, name, 50);
    EXPECT_STRCASEEQ("STATIC", std::string(name, name + wcslen(name)).c_str());
    // The system adds bits for clipping and for not notifying the parent.
    EXPECT_EQ(static_cast<DWORD>(GetWindowLongW(control, GWL_STYLE)) & ~0x0C000000u, expected.style);
    EXPECT_EQ(static_cast<DWORD>(GetWindowLongW(control, GWL_EXSTYLE)) & ~0x4u, expected.extendedStyle);
    EXPECT_EQ(TextOf(control), expected.text);
    RECT place = expected.place;
    place.right += place.left;
    place.bottom += place.top;
    MapDialogRect(Dialog(), &place);
    RECT actual = {};
    GetWindowRect(control, &actual);
    MapWindowPoints(nullptr, Dialog(), reinterpret_cast<POINT*>(&actual), 2);
    EXPECT_EQ(std::tuple(actual.left, actual.top), std::tuple(place.left, place.top));
    EXPECT_NEAR(actual.right, place.right, 1);  // the system rounds sizes, not corners
    EXPECT_NEAR(actual.bottom, place.bottom, 1);
}

// Proves: The minimise mark => is a hyphen in the template and a dash on the window
TEST_F(StatusWindowTest, MarkIsAHyphenUntilTheFontsAreSet)
{
    std::wstring before;
    SUBSTITUTE(SetDlgItemTextW)
    set([&](HWND dialog, int id, const wchar_t* text) {
        before = id == 1014 ? TextOf(GetDlgItem(dialog, id)) : before;
        return set.Original()(dialog, id, text);
    });
    Start();
    EXPECT_EQ(before, L"-");
}

// --- The picture
// Proves: The picture => fills the client area behind everything
TEST_F(StatusWindowTest, PictureFillsTheClientAreaBehindEverything)
{
    Start();
    const HWND background = Background();
    ASSERT_NE(background, nullptr);
    EXPECT_EQ(static_cast<DWORD>(GetWindowLongW(background, GWL_STYLE)) & 0x4000FFFF, 0x4000004Eu);
    EXPECT_EQ(SizeOf(background), SizeOf(Dialog()));
    EXPECT_NE(SendMessageW(background, STM_GETIMAGE, IMAGE_BITMAP, 0), 0);
}

TEST_F(StatusWindowTest, BackgroundIsCreatedOnceAndWithTheseParameters)
{
    int calls = 0;
    SUBSTITUTE(CreateWindowExW)
    create([&](DWORD extended, const wchar_t* name, const wchar_t* text, DWORD style, int x, int y, int width,
               int height, HWND parent, HMENU menu, HINSTANCE instance, void* parameter) {
        ++calls;
        EXPECT_STREQ(name, L"STATIC");
        EXPECT_STREQ(text, L"");
        EXPECT_EQ(std::tuple(extended, style), std::tuple(0u, 0x4000004Eu));
        EXPECT_EQ(std::tuple(x, y, width, height), std::tuple(0, 0, SizeOf(parent).first, SizeOf(parent).second));
        EXPECT_EQ(parent, window_.dialog);
        EXPECT_EQ(std::tuple(menu, instance, parameter), std::tuple(nullptr, instance_, nullptr));
        return create.Original()(extended, name, text, style, x, y, width, height, parent, menu, instance, parameter);
    });
    Start();
    EXPECT_EQ(calls, 1);
}

// --- The fonts
TEST_F(StatusWindowTest, HeadingHasTwentyPointsDotsAndMarkHaveTwelve)
{
    Start();
    const HDC context = GetDC(Control(1013));
    const int dotsPerInch = GetDeviceCaps(context, LOGPIXELSY);
    ReleaseDC(Control(1013), context);
    const LOGFONTW heading = FontOf(1013);
    const LOGFONTW dots = FontOf(1005);
    EXPECT_EQ(heading.lfHeight, -MulDiv(20, dotsPerInch, 72));
    EXPECT_EQ(dots.lfHeight, -MulDiv(12, dotsPerInch, 72));
    for (const LOGFONTW& font : {heading, dots})
    {
        EXPECT_STREQ(font.lfFaceName, L"Segoe UI");
        EXPECT_EQ(std::tuple(font.lfWeight, font.lfWidth), std::tuple(400, 0));
        EXPECT_EQ(std::tuple(font.lfItalic, font.lfUnderline, font.lfCharSet, font.lfQuality), std::tuple(0, 0, 0, 0));
    }
    EXPECT_EQ(SendMessageW(Control(1005), WM_GETFONT, 0, 0), SendMessageW(Control(1014), WM_GETFONT, 0, 0));
    EXPECT_STREQ(FontOf(1004).lfFaceName, L"Segoe MDL2 Assets");  // the template's
    EXPECT_EQ(FontOf(1004).lfWeight, 400);
}

// Proves: The smaller font cannot be created => it goes on
TEST_F(StatusWindowTest, IsReadyWithoutTheSmallFont)
{
    int fonts = 0;
    SUBSTITUTE(CreateFontW)
    create([&](auto... arguments) { return ++fonts == 2 ? HFONT{nullptr} : create.Original()(arguments...); });
    Start();
    EXPECT_TRUE(window_.ready);
}

// Proves: The window ends => the larger font is deleted
TEST_F(StatusWindowTest, HeadingsFontIsDeletedAtTheEnd)
{
    Start();
    const HGDIOBJ heading = reinterpret_cast<HGDIOBJ>(SendMessageW(Control(1013), WM_GETFONT, 0, 0));
    const RECORD(DeleteObject) deleted;
    StopStatusWindow(window_);
    EXPECT_THAT(deleted.Calls(), Contains(std::tuple(heading)));
}

// --- The texts
// Proves: Time passes => the dots take turns every half second
TEST_F(StatusWindowTest, DotsTakeTurnsOnATimerOfTheBackground)
{
    SharedList<std::wstring> texts;
    SharedList<HWND> timers;
    SUBSTITUTE(SetTimer)
    timer([&](HWND window, UINT_PTR id, UINT milliseconds, TIMERPROC procedure) {
        EXPECT_EQ(std::tuple(id, milliseconds, procedure), std::tuple(0u, 500u, nullptr));
        timers.Add(window);
        return timer.Original()(window, id, 10, procedure);  // half a second would take too long here
    });
    SUBSTITUTE(SetDlgItemTextW)
    set([&](HWND dialog, int id, const wchar_t* text) {
        if (id == 1005)
        {
            texts.Add(text);
        }
        return set.Original()(dialog, id, text);
    });
    Start();
    EXPECT_TRUE(WaitUntil([&] { return texts.Get().size() >= 5; }));
    const HWND background = Background();
    StopStatusWindow(window_);
    std::vector<std::wstring> first = texts.Get();
    first.resize(5);
    EXPECT_THAT(first, ElementsAre(kDots[0], kDots[1], kDots[2], kDots[0], kDots[1]));
    EXPECT_THAT(timers.Get(), Each(background));
    EXPECT_GE(timers.Get().size(), 4u);  // armed again at every step
}

TEST_F(StillWindow, EveryStepOfTheDotsInvalidatesTheDialogWithoutErasing)
{
    Start();
    const RECORD(InvalidateRect) invalidated;
    PostMessageW(Background(), WM_TIMER, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return !invalidated.Calls().empty(); }));
    EXPECT_THAT(invalidated.Calls(), ElementsAre(std::tuple(Dialog(), nullptr, FALSE)));
    StopStatusWindow(window_);
}

TEST_F(StillWindow, OtherTimersDoNotMoveTheDots)
{
    Start();
    PostMessageW(Dialog(), WM_TIMER, 0, 0);
    PostMessageW(Background(), WM_TIMER, 5, 0);
    PostMessageW(Background(), WM_TIMER, 1, 0);  // what SetTimer returns is not the id
    PostMessageW(Background(), WM_TIMER, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return Text(1005) != kDots[0]; }));
    EXPECT_EQ(Text(1005), kDots[1]);
}

struct StatusCase
{
    int status;
    std::wstring text;

    friend void PrintTo(const StatusCase& status, std::ostream* stream) { *stream << status.status; }
};

using StatusText = WithParam<StillWindow, StatusCase>;
INSTANTIATE_TEST_SUITE_P(Codes, StatusText,
                         testing::Values(StatusCase{0, L"Checking System."},
                                         StatusCase{1, L"Downloading compatible version of Tavik Software."},
                                         StatusCase{2, L"Installing..."}, StatusCase{3, L""}, StatusCase{-1, L""}));

// Proves: A status is set => the text of its code is on the window when the call returns, the dialog is repainted; unknown codes are an empty text
TEST_P(StatusText, IsOnTheWindowWhenTheCallReturnsAndTheDialogIsInvalidated)
{
    Start(true);
    const RECORD(InvalidateRect) invalidated;
    SetDlgItemTextW(Dialog(), 1004, L"before");
    SetStatus(window_, GetParam().status);
    EXPECT_EQ(Text(1004), GetParam().text);
    EXPECT_THAT(invalidated.Calls(), ElementsAre(std::tuple(Dialog(), nullptr, FALSE)));
    EXPECT_EQ(Text(1013), L"");  // the heading stays empty
    StopStatusWindow(window_);
}

// --- Start and stop
// Proves: Not silent => picture and dialog are shown, in this order; the dialog is hidden for the box
TEST_F(StatusWindowTest, IsShownBackgroundFirst)
{
    const RECORD(ShowWindow) shown;
    Start();
    EXPECT_THAT(shown.Calls(), ElementsAre(std::tuple(Background(), 5), std::tuple(Dialog(), 5)));
}

// Proves: Silent => the window exists and its texts are set, but it is never shown; a silent run leaves it at its first text
TEST_F(StatusWindowTest, SilentWindowExistsWithItsTextsButIsNeverShown)
{
    const RECORD(ShowWindow) shown;
    Start(true);
    EXPECT_TRUE(window_.ready);
    EXPECT_TRUE(window_.silent);
    SetStatus(window_, 2);
    EXPECT_EQ(Text(1004), L"Installing...");
    EXPECT_EQ(IsWindowVisible(Dialog()), FALSE);
    EXPECT_THAT(shown.Calls(), IsEmpty());
}

// Proves: No module instance => every operation does nothing
TEST_F(StatusWindowTest, WithoutAnInstanceEveryOperationDoesNothing)
{
    int touched = 0;
    SUBSTITUTE(SetDlgItemTextW) set([&](auto...) { return ++touched, TRUE; });
    SUBSTITUTE(InvalidateRect) invalidate([&](auto...) { return ++touched, TRUE; });
    SUBSTITUTE(PostThreadMessageW) post([&](auto...) { return ++touched, TRUE; });
    SUBSTITUTE(Sleep) sleep([&](auto...) { ++touched; });
    StartStatusWindow(window_, nullptr, false);
    EXPECT_FALSE(window_.thread.joinable());
    SetStatus(window_, 1);
    StopStatusWindow(window_);
    EXPECT_EQ(window_.dialog, nullptr);
    EXPECT_EQ(touched, 0);
}

// Proves: It is stopped => the flag is set, the close is posted to the thread, the thread is joined; the dialog ends with it
TEST_F(StatusWindowTest, StopSetsTheFlagBeforeItPostsTheCloseToTheThreadAndJoins)
{
    Start();
    const HWND dialog = Dialog();
    int posts = 0;
    SUBSTITUTE(PostThreadMessageW)
    post([&](DWORD thread, UINT message, WPARAM first, LPARAM second) {
        ++posts;
        EXPECT_TRUE(window_.stop);
        EXPECT_EQ(thread, window_.threadId);
        EXPECT_EQ(std::tuple(message, first, second), std::tuple(0x10u, 0u, 0));
        return post.Original()(thread, message, first, second);
    });
    StopStatusWindow(window_);
    EXPECT_EQ(posts, 1);
    EXPECT_FALSE(window_.thread.joinable());
    EXPECT_EQ(IsWindow(dialog), FALSE);  // ended with its thread
    StopStatusWindow(window_);
    EXPECT_EQ(posts, 1);
}

TEST_F(StatusWindowTest, StartChecksTheReadyFlagEveryTenthOfASecondAndNoLongerThanNeeded)
{
    const RECORD(Sleep) slept;
    Start();
    EXPECT_TRUE(window_.ready);
    std::vector<std::tuple<DWORD>> sleeps = slept.Calls();
    std::erase(sleeps, std::tuple(0u));  // the thread library's own
    EXPECT_THAT(sleeps, Each(std::tuple(100u)));
    EXPECT_GE(sleeps.size(), 1u);
    EXPECT_LT(sleeps.size(), 20u);
}

enum class Missing
{
    kDialog,
    kBackground,
    kHeadingFont,
};

// A window of which something cannot be created.
class BrokenStart : public StatusWindowTest, public testing::WithParamInterface<Missing>
{
protected:
    int fonts_ = 0;
    RECORD(ShowWindow) shown_;
    RECORD(SetTimer) timers_;
    SUBSTITUTE(CreateDialogParamW)
    createDialog_{[this](HINSTANCE instance, const wchar_t* name, HWND owner, DLGPROC procedure, LPARAM parameter) {
        EXPECT_EQ(instance, instance_);
        EXPECT_EQ(reinterpret_cast<UINT_PTR>(name), 161u);
        EXPECT_EQ(std::tuple(owner, parameter), std::tuple(nullptr, 0));
        EXPECT_NE(procedure, nullptr);
        return GetParam() == Missing::kDialog ? FailWith(8, HWND{nullptr})
                                              : createDialog_.Original()(instance, name, owner, procedure, parameter);
    }};
    SUBSTITUTE(CreateWindowExW)
    createWindow_{[this](auto... arguments) {
        return GetParam() == Missing::kBackground ? FailWith(8, HWND{nullptr}) : createWindow_.Original()(arguments...);
    }};
    SUBSTITUTE(CreateFontW)
    createFont_{[this](auto... arguments) {
        return GetParam() == Missing::kHeadingFont && ++fonts_ == 1 ? HFONT{nullptr}
                                                                    : createFont_.Original()(arguments...);
    }};
};
INSTANTIATE_TEST_SUITE_P(All, BrokenStart,
                         testing::Values(Missing::kDialog, Missing::kBackground, Missing::kHeadingFont));

// Proves: Picture, dialog or the larger font cannot be created => the thread ends, the start waits its two seconds, the later stop joins an ended thread
TEST_P(BrokenStart, WaitsTwoSecondsForAThreadThatHasEnded)
{
    int hundreds = 0;
    SUBSTITUTE(Sleep)
    sleep([&](DWORD milliseconds) {
        hundreds += milliseconds == 100 ? 1 : 0;
        sleep.Original()(1);
    });
    Start();
    EXPECT_EQ(hundreds, 20);
    EXPECT_FALSE(window_.ready);
    EXPECT_TRUE(ThreadEnds());
    EXPECT_EQ(window_.dialog == nullptr, GetParam() == Missing::kDialog);
    EXPECT_EQ(shown_.Calls().empty(), GetParam() != Missing::kHeadingFont);
    EXPECT_THAT(timers_.Calls(), IsEmpty());
    SetStatus(window_, 1);  // goes to the handle that is stored
    StopStatusWindow(window_);
    EXPECT_FALSE(window_.thread.joinable());
}

// Proves: The thread needs longer than two seconds => the start returns anyway; later texts go to whatever handle is there
TEST_F(StatusWindowTest, StartWaitsNoLongerThanTwoSecondsForASlowThread)
{
    const std::thread::id mainThread = std::this_thread::get_id();
    const HANDLE goOn = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> waits = 0;
    SUBSTITUTE(Sleep)
    sleep([&](DWORD milliseconds) {
        const bool isPoll = std::this_thread::get_id() == mainThread && milliseconds == 100;
        waits += isPoll ? 1 : 0;
        sleep.Original()(isPoll ? 0 : milliseconds);
    });
    SUBSTITUTE(CreateDialogParamW)
    create([&](auto... arguments) {
        WaitForSingleObject(goOn, 10'000);
        return create.Original()(arguments...);
    });
    Start(true);
    EXPECT_EQ(waits, 20);
    EXPECT_FALSE(window_.ready);
    EXPECT_EQ(window_.dialog, nullptr);
    SetStatus(window_, 1);  // lost: there is no handle yet
    SetEvent(goOn);
    ASSERT_TRUE(WaitUntil([&] { return window_.ready.load(); }));
    SetStatus(window_, 2);
    EXPECT_EQ(Text(1004), L"Installing...");
    StopStatusWindow(window_);
    EXPECT_FALSE(window_.thread.joinable());
    CloseHandle(goOn);
}

// --- Scaling
SharedList<std::string>* scalingCalls = nullptr;

void* WINAPI FakeSetAwareness(void* context)
{
    scalingCalls->Add("awareness " + std::to_string(reinterpret_cast<INT_PTR>(context)));
    return reinterpret_cast<void*>(INT_PTR{-77});
}
int WINAPI FakeSetHosting(int behavior)
{
    scalingCalls->Add("hosting " + std::to_string(behavior));
    return 55;
}

template <typename Function>
FARPROC Procedure(Function* function)
{
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(function));
}

// Which of the two scaling functions the system has, what fails, and the calls that are to be seen.
struct ScalingCase
{
    bool hasAwareness;
    bool hasHosting;
    std::string failing;
    std::vector<std::string> calls;
};

class Scaling : public StatusWindowTest, public testing::WithParamInterface<ScalingCase>
{
protected:
    Scaling() { scalingCalls = &calls_; }

    SharedList<std::string> calls_;
    SUBSTITUTE(GetModuleHandleW)
    module_{[this](const wchar_t* name) {
        if (name != nullptr && std::wstring(name) == L"User32")
        {
            calls_.Add("User32");
        }
        return module_.Original()(name);
    }};
    SUBSTITUTE(GetProcAddress)
    lookUp_{[this](HMODULE module, const char* name) {
        const std::string text = reinterpret_cast<UINT_PTR>(name) > 0xFFFF ? name : "a number";
        if (text == "SetThreadDpiAwarenessContext")
        {
            return GetParam().hasAwareness ? Procedure(&FakeSetAwareness) : nullptr;
        }
        if (text == "SetThreadDpiHostingBehavior")
        {
            return GetParam().hasHosting ? Procedure(&FakeSetHosting) : nullptr;
        }
        return lookUp_.Original()(module, name);
    }};
    SUBSTITUTE(CreateDialogParamW)
    createDialog_{[this](auto... arguments) {
        calls_.Add("dialog");
        return createDialog_.Original()(arguments...);
    }};
    SUBSTITUTE(CreateWindowExW)
    createWindow_{[this](auto... arguments) {
        return GetParam().failing == "background" ? HWND{nullptr} : createWindow_.Original()(arguments...);
    }};
    SUBSTITUTE(CreateFontW)
    createFont_{[this](auto... arguments) {
        return GetParam().failing == "font" ? HFONT{nullptr} : createFont_.Original()(arguments...);
    }};
    SUBSTITUTE(Sleep)
    sleep_{[this](DWORD milliseconds) { sleep_.Original()(GetParam().failing.empty() ? milliseconds : 1); }};
};

const std::vector<std::string> kBoth = {"User32", "awareness -1", "hosting 1", "dialog", "hosting 55", "awareness -77"};
INSTANTIATE_TEST_SUITE_P(
    All, Scaling,
    testing::Values(ScalingCase{true, true, "", kBoth}, ScalingCase{true, true, "background", kBoth},
                    ScalingCase{true, true, "font", kBoth},
                    ScalingCase{true, false, "", {"User32", "awareness -1", "dialog", "awareness -77"}},
                    ScalingCase{false, true, "", {"User32", "hosting 1", "dialog", "hosting 55"}},
                    ScalingCase{false, false, "", {"User32", "dialog"}}));

// Proves: The system has the scaling functions, one of them, or neither => they are called before the dialog is made and taken back on every way out
TEST_P(Scaling, IsLeftToTheSystemBeforeTheDialogIsMadeAndGivenBackAtTheEnd)
{
    Start();
    EXPECT_TRUE(WaitUntil([&] { return window_.ready == GetParam().failing.empty(); }));
    StopStatusWindow(window_);
    EXPECT_EQ(calls_.Get(), GetParam().calls);
}

// --- Mouse
class Mouse : public StatusWindowTest
{
protected:
    static void Input(DWORD flags, LONG x = 0, LONG y = 0)
    {
        INPUT input = {};
        input.type = INPUT_MOUSE;
        input.mi.dwFlags = flags;
        input.mi.dx = x;
        input.mi.dy = y;
        EXPECT_EQ(SendInput(1, &input, sizeof(input)), 1u);
    }
    static RECT PlaceOf(HWND window)
    {
        RECT place = {};
        GetWindowRect(window, &place);
        return place;
    }
    void PressOnTheWindow() const
    {
        SetCursorPos(PlaceOf(Dialog()).left + 30, PlaceOf(Dialog()).top + 30);
        Input(MOUSEEVENTF_LEFTDOWN);
    }
    bool WaitForAction() const
    {
        return WaitUntil([this] { return actions_.Get().size() > 1; });
    }

    bool acts_ = true;
    SharedList<WPARAM> actions_;  // 0: the release of the mouse
    SUBSTITUTE(ReleaseCapture)
    release_{[this] {
        actions_.Add(0);
        return release_.Original()();
    }};
    SUBSTITUTE(SendMessageW)
    send_{[this](HWND window, UINT message, WPARAM first, LPARAM second) {
        const bool isAction = message == WM_SYSCOMMAND;
        if (isAction)
        {
            EXPECT_EQ(std::tuple(window, second), std::tuple(window_.dialog.load(), 0));
            actions_.Add(first);
        }
        return isAction && !acts_ ? LRESULT{0} : send_.Original()(window, message, first, second);
    }};
};

// Proves: A click on the mark => minimises; the texts go on changing, the box still appears
TEST_F(Mouse, ClickOnTheMarkMinimises)
{
    Start();
    const RECT mark = PlaceOf(Control(1014));
    SetCursorPos((mark.left + mark.right) / 2, (mark.top + mark.bottom) / 2);
    Input(MOUSEEVENTF_LEFTDOWN);
    Input(MOUSEEVENTF_LEFTUP);
    EXPECT_TRUE(WaitUntil([&] { return IsIconic(Dialog()) != FALSE; }));
    EXPECT_THAT(actions_.Get(), ElementsAre(0u, 0xF020u));
}

// Proves: The mouse is pressed outside the mark => it drags the window, any number of times; a mere click does nothing
TEST_F(Mouse, DragOutsideTheMarkMovesTheWindow)
{
    Start();
    const RECT before = PlaceOf(Dialog());
    PressOnTheWindow();
    EXPECT_TRUE(WaitForAction());
    EXPECT_THAT(actions_.Get(), ElementsAre(0u, 0xF012u));
    for (int step = 0; step < 6; ++step)
    {
        Sleep(10);
        Input(MOUSEEVENTF_MOVE, 5, 4);  // small steps are not accelerated
    }
    Sleep(10);
    Input(MOUSEEVENTF_LEFTUP);
    RECT after = {};
    EXPECT_TRUE(WaitUntil([&] {
        after = PlaceOf(Dialog());
        return after.left == before.left + 30 && after.top == before.top + 24;
    })) << "moved by "
        << after.left - before.left << ", " << after.top - before.top;
    EXPECT_EQ(IsIconic(Dialog()), FALSE);
}

TEST_F(Mouse, ButtonOnAnotherControlDragsToo)
{
    acts_ = false;
    Start();
    PostMessageW(Control(1004), WM_LBUTTONDOWN, 0, 0);
    EXPECT_TRUE(WaitForAction());
    EXPECT_THAT(actions_.Get(), ElementsAre(0u, 0xF012u));
}

// Proves: The mouse over the mark => a hand
TEST_F(Mouse, OverTheMarkTheCursorIsAHand)
{
    const RECORD(SetCursor) cursors;
    Start();
    PostMessageW(Control(1004), WM_MOUSEMOVE, 0, 0);
    PostMessageW(Dialog(), WM_MOUSEMOVE, 0, 0);
    PostMessageW(Control(1014), WM_MOUSEMOVE, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return !cursors.Calls().empty(); }));
    EXPECT_THAT(cursors.Calls(), ElementsAre(std::tuple(LoadCursorW(nullptr, MAKEINTRESOURCEW(32649)))));
    EXPECT_THAT(actions_.Get(), IsEmpty());
    StopStatusWindow(window_);
}

// Proves: It is stopped during a drag => it ends when the button is released
TEST_F(Mouse, StopDuringADragEndsTheThreadWhenTheButtonIsReleased)
{
    Start();
    PressOnTheWindow();
    EXPECT_TRUE(WaitForAction());
    Sleep(50);  // the system's own loop runs now and swallows the message that the stop posts
    std::thread release([] {
        Sleep(150);
        Input(MOUSEEVENTF_LEFTUP);
    });
    StopStatusWindow(window_);
    release.join();
    EXPECT_FALSE(window_.thread.joinable());
}

// --- The message loop
class MessageLoop : public StatusWindowTest
{
protected:
    SharedList<UINT> dispatched_;
    SUBSTITUTE(DispatchMessageW)
    dispatch_{[this](const MSG* message) {
        dispatched_.Add(message->message);
        return dispatch_.Original()(message);
    }};
};

// A message, and whether it goes to the window or only to its thread.
using EndingMessage = WithParam<MessageLoop, std::tuple<UINT, bool>>;
INSTANTIATE_TEST_SUITE_P(Messages, EndingMessage, testing::Combine(testing::Values(0x02, 0x10, 0x12), testing::Bool()));

// Proves: A closing message arrives, for the thread or the window => the loop ends without dispatching it; other messages are dispatched
TEST_P(EndingMessage, LeavesTheLoopWithoutBeingDispatched)
{
    const auto [message, isForTheWindow] = GetParam();
    Start();
    EXPECT_NE(
        isForTheWindow ? PostMessageW(Dialog(), message, 0, 0) : PostThreadMessageW(window_.threadId, message, 0, 0),
        FALSE);
    EXPECT_TRUE(ThreadEnds());
    EXPECT_THAT(dispatched_.Get(), Not(Contains(message)));
}

TEST_F(MessageLoop, DispatchesOtherMessagesAndGoesOn)
{
    Start();
    PostMessageW(Dialog(), WM_APP + 1, 0, 0);
    PostMessageW(Dialog(), WM_APP + 2, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return testing::Value(dispatched_.Get(), Contains(UINT{WM_APP + 2})); }));
    EXPECT_THAT(dispatched_.Get(), Contains(UINT{WM_APP + 1}));
    EXPECT_NE(IsWindow(Dialog()), FALSE);
}

TEST_F(StatusWindowTest, StopFlagAloneEndsTheLoopAfterTheNextMessage)
{
    Start();
    window_.stop = true;
    PostThreadMessageW(window_.threadId, WM_APP, 0, 0);
    EXPECT_TRUE(ThreadEnds());
}

// Proves: The message queue fails => the loop ends
TEST_F(StatusWindowTest, FailingMessageQueueEndsTheLoop)
{
    SUBSTITUTE(GetMessageW)
    get([](MSG*, HWND window, UINT first, UINT last) {
        EXPECT_EQ(std::tuple(window, first, last), std::tuple(nullptr, 0u, 0u));
        return FailWith(1400, BOOL{-1});
    });
    Start();
    EXPECT_TRUE(ThreadEnds());
    StopStatusWindow(window_);
}

// --- Painting
// Proves: Text is painted => light, transparent, on the picture; everything else is left to the system
TEST_F(StatusWindowTest, TextIsLightAndTransparentOnThePicture)
{
    Start(true);
    const HDC context = CreateCompatibleDC(nullptr);
    const LRESULT brush = SendMessageW(Dialog(), WM_CTLCOLORSTATIC, reinterpret_cast<WPARAM>(context),
                                       reinterpret_cast<LPARAM>(Control(1004)));
    EXPECT_EQ(brush, reinterpret_cast<LRESULT>(GetStockObject(5)));
    EXPECT_EQ(std::tuple(GetTextColor(context), GetBkMode(context)), std::tuple(0x00FFFFF0u, 1));
    DeleteDC(context);
}

TEST_F(StatusWindowTest, DialogProcedureLeavesEveryOtherMessageToTheSystem)
{
    Start(true);
    const auto procedure = reinterpret_cast<DLGPROC>(GetWindowLongPtrW(Dialog(), DWLP_DLGPROC));
    for (const UINT message : {UINT{WM_INITDIALOG}, UINT{WM_COMMAND}, UINT{WM_CTLCOLORDLG}, UINT{WM_CLOSE}})
    {
        EXPECT_EQ(procedure(Dialog(), message, 0, 0), 0);
    }
}
}  // namespace
}  // namespace repair
