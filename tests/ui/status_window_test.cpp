#include "ui/status_window.h"

#include <atomic>
#include <thread>

#include "support/test.h"

IMPORTED(CreateDialogParamW, CreateFontW, CreateWindowExW, DeleteObject, DispatchMessageW, GetMessageW, GetDC,
         GetModuleHandleW, GetProcAddress, InvalidateRect, PostThreadMessageW, ReleaseCapture, SendDlgItemMessageW,
         SendMessageW, SetCursor, SetDlgItemTextW, SetThreadErrorMode, SetTimer, ShowWindow, Sleep)

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
    RECORD(ShowWindow) shown_;
    RECORD(InvalidateRect) invalidated_;
    StatusWindow window_;
};

// Proves: It is started => on a thread of its own; the start returns when it is ready, with title, icon, picture, controls and fonts
// Proves: Not silent => picture and dialog are shown, in this order; the dialog is hidden for the box
TEST_F(StatusWindowTest, IsShownAndReadyWithItsTitleAndIconWhenTheStartReturns)
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
    EXPECT_THAT(shown_.Calls(), ElementsAre(std::tuple(Background(), 5), std::tuple(Dialog(), 5)));
    const LRESULT icon = reinterpret_cast<LRESULT>(LoadIconW(instance_, MAKEINTRESOURCEW(101)));
    ASSERT_NE(icon, 0);
    EXPECT_EQ(SendMessageW(Dialog(), WM_GETICON, ICON_BIG, 0), icon);
    EXPECT_EQ(SendMessageW(Dialog(), WM_GETICON, ICON_SMALL, 0), icon);
}

// --- The controls; the case of their places and styles is in cases/window
// A window whose timer never fires.
class StillWindow : public StatusWindowTest
{
    SUBSTITUTE(SetTimer)
    noTimer_{[](HWND, UINT_PTR, UINT, TIMERPROC) { return UINT_PTR{1}; }};
};

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
    const RECORD(CreateWindowExW) created;
    Start();
    ASSERT_NE(Background(), nullptr);
    const auto size = SizeOf(Dialog());
    EXPECT_EQ(SizeOf(Background()), size);
    EXPECT_NE(SendMessageW(Background(), STM_GETIMAGE, IMAGE_BITMAP, 0), 0);
    EXPECT_EQ(GetWindow(Background(), GW_HWNDLAST), Background());  // the lowest of all controls
    EXPECT_THAT(created.Calls(), ElementsAre(std::tuple(0u, L"STATIC", L"", 0x4000004Eu, 0, 0, size.first, size.second,
                                                        Dialog(), nullptr, instance_, nullptr)));
    StopStatusWindow(window_);
}

// --- The fonts
// Proves: The window ends => the larger font is deleted
TEST_F(StatusWindowTest, HeadingHasTwentyPointsDotsAndMarkHaveTwelve)
{
    const RECORD(CreateFontW) fonts;
    const RECORD(GetDC) contexts;
    const RECORD(SendDlgItemMessageW) sent;
    Start();
    EXPECT_THAT(contexts.Calls(), Contains(std::tuple(Control(1013))));
    const HDC context = GetDC(Control(1013));
    const int dotsPerInch = GetDeviceCaps(context, LOGPIXELSY);
    ReleaseDC(Control(1013), context);
    const auto font = [&](int points) {
        return std::tuple(-MulDiv(points, dotsPerInch, 72), 0, 0, 0, 400, 0u, 0u, 0u, 0u, 0u, 0u, 0u, 0u, L"Segoe UI");
    };
    EXPECT_THAT(fonts.Calls(), ElementsAre(font(20), font(12)));
    EXPECT_EQ(FontOf(1013).lfHeight, -MulDiv(20, dotsPerInch, 72));
    EXPECT_EQ(FontOf(1005).lfHeight, -MulDiv(12, dotsPerInch, 72));
    const auto setFont = [this](int id) {
        const LRESULT set = SendMessageW(Control(id), WM_GETFONT, 0, 0);
        return std::tuple(Dialog(), id, 0x30u, static_cast<WPARAM>(set), LPARAM{1});  // and paint
    };
    EXPECT_THAT(sent.Calls(), ElementsAre(setFont(1013), setFont(1005), setFont(1014)));
    EXPECT_EQ(SendMessageW(Control(1005), WM_GETFONT, 0, 0), SendMessageW(Control(1014), WM_GETFONT, 0, 0));
    EXPECT_STREQ(FontOf(1004).lfFaceName, L"Segoe MDL2 Assets");  // the template's
    EXPECT_EQ(FontOf(1004).lfWeight, 400);
    const HGDIOBJ headingFont = reinterpret_cast<HGDIOBJ>(SendMessageW(Control(1013), WM_GETFONT, 0, 0));
    const RECORD(DeleteObject) deleted;
    StopStatusWindow(window_);
    EXPECT_THAT(deleted.Calls(), Contains(std::tuple(headingFont)));
}

// --- The texts
// The id that the system gives the timer.
using TimerId = WithParam<StatusWindowTest, UINT_PTR>;
INSTANTIATE_TEST_SUITE_P(AskedForAndOther, TimerId, testing::Values(0, 42));

// Proves: Time passes => the dots take turns every half second
// Proves: The system gives the timer an id of its own => the messages with this id move the dots as well, and the timer is set again with the id that came
TEST_P(TimerId, MovesTheDotsAndIsSetAgainAtEveryStep)
{
    SharedList<std::wstring> texts;
    SharedList<UINT_PTR> ids;
    SUBSTITUTE(SetTimer)
    timer([&](HWND window, UINT_PTR id, UINT milliseconds, TIMERPROC procedure) {
        EXPECT_EQ(std::tuple(window, milliseconds, procedure), std::tuple(Background(), 500u, nullptr));
        ids.Add(id);
        timer.Original()(window, GetParam(), 10, procedure);  // half a second would take too long here
        return GetParam();
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
    EXPECT_TRUE(WaitUntil([&] { return texts.Get().size() >= 5 && ids.Get().size() >= 4; }));
    StopStatusWindow(window_);
    std::vector<std::wstring> firstTexts = texts.Get();
    firstTexts.resize(5);
    EXPECT_THAT(firstTexts, ElementsAre(kDots[0], kDots[1], kDots[2], kDots[0], kDots[1]));
    std::vector<UINT_PTR> firstIds = ids.Get();
    firstIds.resize(4);
    EXPECT_THAT(firstIds, ElementsAre(0u, GetParam(), GetParam(), GetParam()));
}

TEST_F(StillWindow, OnlyTheTimerOfThePictureMovesTheDotsAndEachStepRepaintsTheDialog)
{
    Start();
    invalidated_.Forget();
    PostMessageW(Dialog(), WM_TIMER, 0, 0);
    PostMessageW(Background(), WM_TIMER, 5, 0);
    PostMessageW(Background(), WM_TIMER, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return !invalidated_.Calls().empty(); }));
    EXPECT_THAT(invalidated_.Calls(), ElementsAre(std::tuple(Dialog(), nullptr, FALSE)));
    EXPECT_EQ(Text(1005), kDots[1]);
}

TEST_F(StatusWindowTest, ThreadTurnsOffTheBoxesOfTheSystemBeforeItsFirstWindow)
{
    std::vector<std::string> order;
    SUBSTITUTE(SetThreadErrorMode)
    set([&](DWORD mode, DWORD* before) {
        EXPECT_EQ(GetCurrentThreadId(), window_.threadId);
        EXPECT_EQ(std::tuple(mode, before), std::tuple(1u, nullptr));
        order.push_back("error mode");
        return TRUE;
    });
    SUBSTITUTE(CreateDialogParamW)
    create([&](auto... arguments) {
        order.push_back("dialog");
        return create.Original()(arguments...);
    });
    Start();
    EXPECT_THAT(order, ElementsAre("error mode", "dialog"));
}

// Proves: A status is set => the text of its code is on the window when the call returns, the dialog is repainted; unknown codes are an empty text
// Proves: Silent => the window exists and its texts are set, but it is never shown; a silent run leaves it at its first text
TEST_F(StillWindow, SilentWindowIsNeverShownButHasTheTextOfEachStatusAtOnce)
{
    Start(true);
    EXPECT_TRUE(window_.ready);
    EXPECT_TRUE(window_.silent);
    const std::pair<int, std::wstring> statuses[] = {{0, L"Checking System."},
                                                     {1, L"Downloading compatible version of Tavik Software."},
                                                     {2, L"Installing..."},
                                                     {3, L""},
                                                     {-1, L""}};
    for (const auto& [status, text] : statuses)
    {
        SetDlgItemTextW(Dialog(), 1004, L"before");
        invalidated_.Forget();
        SetStatus(window_, status);
        EXPECT_EQ(Text(1004), text);
        EXPECT_THAT(invalidated_.Calls(), ElementsAre(std::tuple(Dialog(), nullptr, FALSE)));
        EXPECT_EQ(Text(1013), L"");  // the heading stays empty
    }
    EXPECT_EQ(IsWindowVisible(Dialog()), FALSE);
    EXPECT_THAT(shown_.Calls(), IsEmpty());
}

// --- Start and stop
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

enum class Missing
{
    kNothing,
    kSmallFont,
    kHeadingFont,
    kBackground,
    kDialog,
};

// What cannot be created, which of the two scaling functions the system has, and the calls around the dialog.
struct StartCase
{
    Missing missing;
    bool hasAwareness;
    bool hasHosting;
    std::vector<std::string> calls;
};

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
FARPROC ProcedureIf(bool exists, Function* function)
{
    return exists ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(function)) : nullptr;
}

class UnusualStart : public WithParam<StatusWindowTest, StartCase>
{
protected:
    UnusualStart() { scalingCalls = &calls_; }

    static bool IsMissing(Missing part) { return GetParam().missing == part; }
    static bool IsBroken() { return GetParam().missing > Missing::kSmallFont; }

    int polls_ = 0;
    int fonts_ = 0;
    SharedList<std::string> calls_;
    RECORD(SetTimer) timers_;
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
        const std::string text = IS_INTRESOURCE(name) ? "a number" : name;
        return text == "SetThreadDpiAwarenessContext"  ? ProcedureIf(GetParam().hasAwareness, &FakeSetAwareness)
               : text == "SetThreadDpiHostingBehavior" ? ProcedureIf(GetParam().hasHosting, &FakeSetHosting)
                                                       : lookUp_.Original()(module, name);
    }};
    SUBSTITUTE(CreateDialogParamW)
    createDialog_{[this](HINSTANCE instance, const wchar_t* name, HWND owner, DLGPROC procedure, LPARAM parameter) {
        EXPECT_EQ(std::tuple(instance, reinterpret_cast<UINT_PTR>(name), owner, parameter),
                  std::tuple(instance_, 161u, nullptr, 0));
        EXPECT_NE(procedure, nullptr);
        calls_.Add("dialog");
        return IsMissing(Missing::kDialog) ? FailWith(8, HWND{nullptr})
                                           : createDialog_.Original()(instance, name, owner, procedure, parameter);
    }};
    SUBSTITUTE(CreateWindowExW)
    createWindow_{[this](auto... arguments) {
        return IsMissing(Missing::kBackground) ? FailWith(8, HWND{nullptr}) : createWindow_.Original()(arguments...);
    }};
    SUBSTITUTE(CreateFontW)
    createFont_{[this](auto... arguments) {
        const Missing font = ++fonts_ == 1 ? Missing::kHeadingFont : Missing::kSmallFont;
        return IsMissing(font) ? HFONT{nullptr} : createFont_.Original()(arguments...);
    }};
    SUBSTITUTE(Sleep)
    sleep_{[this](DWORD milliseconds) {
        polls_ += milliseconds == 100 ? 1 : 0;
        sleep_.Original()(IsBroken() ? 1 : milliseconds);
    }};
};

const std::vector<std::string> kBoth = {"User32", "awareness -1", "hosting 1", "dialog", "hosting 55", "awareness -77"};
INSTANTIATE_TEST_SUITE_P(
    All, UnusualStart,
    testing::Values(StartCase{Missing::kDialog, true, true, kBoth}, StartCase{Missing::kBackground, true, true, kBoth},
                    StartCase{Missing::kHeadingFont, true, true, kBoth},
                    StartCase{Missing::kSmallFont, true, true, kBoth}, StartCase{Missing::kNothing, true, true, kBoth},
                    StartCase{Missing::kNothing, true, false, {"User32", "awareness -1", "dialog", "awareness -77"}},
                    StartCase{Missing::kNothing, false, true, {"User32", "hosting 1", "dialog", "hosting 55"}},
                    StartCase{Missing::kNothing, false, false, {"User32", "dialog"}}));

// Proves: Picture, dialog or the larger font cannot be created => the thread ends, the start waits its two seconds, the later stop joins an ended thread
// Proves: The smaller font cannot be created => it goes on
// Proves: The system has the scaling functions, one of them, or neither => they are called before the dialog is made and taken back on every way out
TEST_P(UnusualStart, WaitsForABrokenWindowInVainAndLeavesTheScalingAsItWas)
{
    Start();
    EXPECT_EQ(window_.ready, !IsBroken());
    EXPECT_EQ(polls_ == 20, IsBroken()) << polls_;
    EXPECT_EQ(window_.dialog == nullptr, IsMissing(Missing::kDialog));
    EXPECT_EQ(shown_.Calls().empty(), IsMissing(Missing::kDialog) || IsMissing(Missing::kBackground));
    EXPECT_EQ(timers_.Calls().empty(), IsBroken());
    if (IsBroken())
    {
        EXPECT_TRUE(ThreadEnds());
    }
    SetStatus(window_, 1);  // uses the stored handle, whatever it is
    StopStatusWindow(window_);
    EXPECT_FALSE(window_.thread.joinable());
    EXPECT_EQ(calls_.Get(), GetParam().calls);
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
    SetStatus(window_, 1);  // has no effect: there is no window handle yet
    SetEvent(goOn);
    ASSERT_TRUE(WaitUntil([&] { return window_.ready.load(); }));
    SetStatus(window_, 2);
    EXPECT_EQ(Text(1004), L"Installing...");
    StopStatusWindow(window_);
    EXPECT_FALSE(window_.thread.joinable());
    CloseHandle(goOn);
}

// --- Mouse
class Mouse : public StatusWindowTest
{
protected:
    static void Input(DWORD flags)
    {
        INPUT input = {};
        input.type = INPUT_MOUSE;
        input.mi.dwFlags = flags;
        EXPECT_EQ(SendInput(1, &input, sizeof(input)), 1u);
    }
    bool WaitForActions(size_t count) const
    {
        return WaitUntil([=, this] { return actions_.Get().size() >= count; });
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
// Proves: The mouse is pressed outside the mark => it drags the window, any number of times; a mere click does nothing
TEST_F(Mouse, ButtonOnTheMarkMinimisesAndElsewhereBeginsADrag)
{
    acts_ = false;
    Start();
    for (const HWND pressed : {Dialog(), Control(1004), Control(1014)})
    {
        PostMessageW(pressed, WM_LBUTTONDOWN, 0, 0);
    }
    EXPECT_TRUE(WaitForActions(6));
    EXPECT_THAT(actions_.Get(), ElementsAre(0u, 0xF012u, 0u, 0xF012u, 0u, 0xF020u));
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
    RECT place = {};
    GetWindowRect(Dialog(), &place);
    SetCursorPos(place.left + 30, place.top + 30);
    Input(MOUSEEVENTF_LEFTDOWN);
    EXPECT_TRUE(WaitForActions(2));
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
// A message, and whether it goes to the window or only to its thread.
class EndingMessage : public WithParam<StatusWindowTest, std::tuple<UINT, bool>>
{
protected:
    SharedList<UINT> dispatched_;
    SUBSTITUTE(DispatchMessageW)
    dispatch_{[this](const MSG* message) {
        dispatched_.Add(message->message);
        return dispatch_.Original()(message);
    }};
};

INSTANTIATE_TEST_SUITE_P(Messages, EndingMessage, testing::Combine(testing::Values(0x02, 0x10, 0x12), testing::Bool()));

// Proves: A closing message arrives, for the thread or the window => the loop ends without dispatching it; other messages are dispatched
TEST_P(EndingMessage, LeavesTheLoopWithoutBeingDispatched)
{
    const auto [message, isForTheWindow] = GetParam();
    Start();
    PostMessageW(Dialog(), WM_APP + 1, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return testing::Value(dispatched_.Get(), Contains(UINT{WM_APP + 1})); }));
    EXPECT_NE(
        isForTheWindow ? PostMessageW(Dialog(), message, 0, 0) : PostThreadMessageW(window_.threadId, message, 0, 0),
        FALSE);
    EXPECT_TRUE(ThreadEnds());
    EXPECT_THAT(dispatched_.Get(), Not(Contains(message)));
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
TEST_F(StatusWindowTest, TextIsLightAndTransparentOnThePictureAndAllElseIsLeftToTheSystem)
{
    Start(true);
    const HDC context = CreateCompatibleDC(nullptr);
    const LRESULT brush = SendMessageW(Dialog(), WM_CTLCOLORSTATIC, reinterpret_cast<WPARAM>(context),
                                       reinterpret_cast<LPARAM>(Control(1004)));
    EXPECT_EQ(brush, reinterpret_cast<LRESULT>(GetStockObject(5)));
    EXPECT_EQ(std::tuple(GetTextColor(context), GetBkMode(context)), std::tuple(0x00FFFFF0u, 1));
    DeleteDC(context);
    const auto procedure = reinterpret_cast<DLGPROC>(GetWindowLongPtrW(Dialog(), DWLP_DLGPROC));
    for (const UINT message : {UINT{WM_INITDIALOG}, UINT{WM_COMMAND}, UINT{WM_CTLCOLORDLG}, UINT{WM_CLOSE}})
    {
        EXPECT_EQ(procedure(Dialog(), message, 0, 0), 0);
    }
}
}  // namespace
}  // namespace repair
