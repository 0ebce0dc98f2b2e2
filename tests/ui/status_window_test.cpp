#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/substitute.h"
#include "ui/status_window.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

IMPORTED(SetTimer)
IMPORTED(Sleep)
IMPORTED(SetDlgItemTextW)
IMPORTED(InvalidateRect)
IMPORTED(ShowWindow)
IMPORTED(CreateDialogParamW)
IMPORTED(CreateWindowExW)
IMPORTED(CreateFontW)
IMPORTED(DeleteObject)
IMPORTED(GetProcAddress)
IMPORTED(GetModuleHandleW)
IMPORTED(PostThreadMessageW)
IMPORTED(SendMessageW)
IMPORTED(ReleaseCapture)
IMPORTED(SetCursor)
IMPORTED(DispatchMessageW)
IMPORTED(GetMessageW)

namespace repair
{
namespace
{
const std::wstring kDots[] = {L"\u25C9 \u25CB \u25CB", L"\u25CB \u25C9 \u25CB", L"\u25CB \u25CB \u25C9"};

// A list that the window thread writes and the test reads.
template <typename T>
class Shared
{
public:
    void Add(T value)
    {
        const std::lock_guard lock(mutex_);
        values_.push_back(std::move(value));
    }
    std::vector<T> Get() const
    {
        const std::lock_guard lock(mutex_);
        return values_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<T> values_;
};

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

class StatusWindowTest : public testing::Test
{
protected:
    ~StatusWindowTest() override { StopStatusWindow(window_); }

    void Start(bool silent = false) { StartStatusWindow(window_, instance_, silent); }
    HWND Dialog() const { return window_.dialog; }
    HWND Control(int id) const { return GetDlgItem(window_.dialog, id); }
    std::wstring Text(int id) const
    {
        wchar_t text[100] = {};
        SendMessageW(Control(id), WM_GETTEXT, 100, reinterpret_cast<LPARAM>(text));
        return text;
    }
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
TEST_F(StatusWindowTest, IsReadyWithItsTitleWhenTheStartReturns)
{
    Start();
    EXPECT_TRUE(window_.ready);
    EXPECT_EQ(window_.instance, instance_);
    EXPECT_FALSE(window_.silent);
    ASSERT_NE(Dialog(), nullptr);
    EXPECT_EQ(GetWindowThreadProcessId(Dialog(), nullptr), window_.threadId);
    EXPECT_NE(window_.threadId, GetCurrentThreadId());
    wchar_t text[100] = {};
    SendMessageW(Dialog(), WM_GETTEXT, 100, reinterpret_cast<LPARAM>(text));
    EXPECT_STREQ(text, L"Tavik Software Compatibility Tool");
    EXPECT_NE(IsWindowVisible(Dialog()), FALSE);
    EXPECT_NE(IsWindowVisible(Background()), FALSE);
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
    RECT client = {};
    GetClientRect(Dialog(), &client);
    EXPECT_EQ(client.right, size.right);
    EXPECT_EQ(client.bottom, size.bottom);
}

// --- The dialog as it stands in the resources
class Template : public testing::Test
{
protected:
    void SetUp() override
    {
        const HRSRC resource = FindResourceExW(nullptr, RT_DIALOG, MAKEINTRESOURCEW(161), 1033);
        ASSERT_NE(resource, nullptr);
        next_ = static_cast<const BYTE*>(LockResource(LoadResource(nullptr, resource)));
    }
    template <typename T>
    T Take()
    {
        T value = {};
        std::memcpy(&value, next_, sizeof(value));
        next_ += sizeof(value);
        return value;
    }
    std::wstring TakeText()
    {
        std::wstring text;
        for (WORD c = Take<WORD>(); c != 0; c = Take<WORD>())
        {
            text += static_cast<wchar_t>(c);
        }
        return text;
    }
    // Spelt out or by number.
    std::wstring TakeClass()
    {
        WORD first = 0;
        std::memcpy(&first, next_, sizeof(first));
        if (first != 0xFFFF)
        {
            return TakeText();
        }
        next_ += sizeof(first);
        return Take<WORD>() == 0x82 ? L"#0082" : L"another";
    }
    std::vector<int> TakePlace()
    {
        std::vector<int> place;
        for (int i = 0; i < 4; ++i)
        {
            place.push_back(Take<short>());
        }
        return place;
    }
    void Align() { next_ += (4 - reinterpret_cast<UINT_PTR>(next_) % 4) % 4; }

    const BYTE* next_ = nullptr;
};

// Proves: Dialog and banner are stored => dialog 161 has its size and style, the banner is 640 x 192 pixels in 24 bits
TEST_F(Template, IsAnExtendedOneWithFourControls)
{
    EXPECT_EQ(Take<WORD>(), 1u);
    EXPECT_EQ(Take<WORD>(), 0xFFFFu);
    EXPECT_EQ(Take<DWORD>(), 0u);  // help
    EXPECT_EQ(Take<DWORD>(), 0u);  // extended style
    EXPECT_EQ(Take<DWORD>(), 0x80800C40u);
    EXPECT_EQ(Take<WORD>(), 4u);
    EXPECT_THAT(TakePlace(), ElementsAre(0, 0, 286, 72));
    EXPECT_EQ(Take<WORD>(), 0u);   // no menu
    EXPECT_EQ(Take<WORD>(), 0u);   // the ordinary class
    EXPECT_EQ(TakeText(), L"");    // no caption
    EXPECT_EQ(Take<WORD>(), 16u);  // points
    EXPECT_EQ(Take<WORD>(), 400u);
    EXPECT_EQ(Take<BYTE>(), 0u);  // not italic
    EXPECT_EQ(Take<BYTE>(), 0u);  // character set
    EXPECT_EQ(TakeText(), L"Segoe MDL2 Assets");

    struct Expected
    {
        DWORD id;
        std::vector<int> place;
        DWORD style;
        DWORD extendedStyle;
        std::wstring text;
    };
    const std::vector<Expected> controls = {{1004, {15, 57, 194, 11}, 0x5002004C, 0x20, L""},
                                            {1013, {15, 47, 268, 20}, 0x5002004C, 0x20, L""},
                                            {1005, {216, 57, 63, 11}, 0x50020002, 0x1020, L""},
                                            {1014, {260, 3, 10, 9}, 0x50020101, 0x20, L"-"}};
    for (const Expected& control : controls)
    {
        Align();
        EXPECT_EQ(Take<DWORD>(), 0u);  // help
        EXPECT_EQ(Take<DWORD>(), control.extendedStyle) << control.id;
        EXPECT_EQ(Take<DWORD>(), control.style) << control.id;
        EXPECT_EQ(TakePlace(), control.place) << control.id;
        EXPECT_EQ(Take<DWORD>(), control.id);
        EXPECT_THAT(TakeClass(), testing::AnyOf(L"STATIC", L"#0082")) << control.id;
        EXPECT_EQ(TakeText(), control.text);
        EXPECT_EQ(Take<WORD>(), 0u);  // no data of its own
    }
}

struct ControlCase
{
    int id;
    RECT place;  // left, top, width, height in dialog units
    DWORD style;
    DWORD extendedStyle;
    std::wstring text;
};

void PrintTo(const ControlCase& control, std::ostream* stream)
{
    *stream << control.id;
}

class StatusWindowControl : public StatusWindowTest, public testing::WithParamInterface<ControlCase>
{
};
INSTANTIATE_TEST_SUITE_P(Controls, StatusWindowControl,
                         testing::Values(ControlCase{1004, {15, 57, 194, 11}, 0x5002004C, 0x20, L"Checking System."},
                                         ControlCase{1013, {15, 47, 268, 20}, 0x5002004C, 0x20, L""},
                                         ControlCase{1005, {216, 57, 63, 11}, 0x50020002, 0x1020, kDots[0]},
                                         ControlCase{1014, {260, 3, 10, 9}, 0x50020101, 0x20, L"\u2014"}));

TEST_P(StatusWindowControl, HasItsPlaceStyleAndText)
{
    const ControlCase& expected = GetParam();
    SUBSTITUTE(SetTimer) noTimer([](HWND, UINT_PTR, UINT, TIMERPROC) { return UINT_PTR{1}; });
    Start();
    const HWND control = Control(expected.id);
    ASSERT_NE(control, nullptr);
    wchar_t name[50] = {};
    GetClassNameW(control, name, 50);
    EXPECT_STRCASEEQ("STATIC", std::string(name, name + wcslen(name)).c_str());
    // The system adds bits for clipping and for not notifying the parent.
    EXPECT_EQ(static_cast<DWORD>(GetWindowLongW(control, GWL_STYLE)) & ~0x0C000000u, expected.style);
    EXPECT_EQ(static_cast<DWORD>(GetWindowLongW(control, GWL_EXSTYLE)) & ~0x4u, expected.extendedStyle);
    EXPECT_EQ(Text(expected.id), expected.text);
    RECT place = {expected.place.left, expected.place.top, expected.place.left + expected.place.right,
                  expected.place.top + expected.place.bottom};
    MapDialogRect(Dialog(), &place);
    RECT actual = {};
    GetWindowRect(control, &actual);
    MapWindowPoints(nullptr, Dialog(), reinterpret_cast<POINT*>(&actual), 2);
    EXPECT_EQ(actual.left, place.left);
    EXPECT_EQ(actual.top, place.top);
    EXPECT_NEAR(actual.right, place.right, 1);  // the system rounds sizes, not corners
    EXPECT_NEAR(actual.bottom, place.bottom, 1);
}

// Proves: The minimise mark => is a hyphen in the template and a dash on the window
TEST_F(StatusWindowTest, MarkIsAHyphenInTheTemplateUntilTheFontsAreSet)
{
    std::wstring before;
    SUBSTITUTE(SetDlgItemTextW)
    set([&](HWND dialog, int id, const wchar_t* text) {
        if (id == 1014)
        {
            wchar_t old[10] = {};
            GetDlgItemTextW(dialog, 1014, old, 10);
            before = old;
        }
        return set.Original()(dialog, id, text);
    });
    Start();
    EXPECT_EQ(before, L"-");
}

// Proves: The picture => fills the client area behind everything
TEST_F(StatusWindowTest, PictureFillsTheClientAreaBehindEverything)
{
    Start();
    const HWND background = Background();
    ASSERT_NE(background, nullptr);
    EXPECT_EQ(static_cast<DWORD>(GetWindowLongW(background, GWL_STYLE)) & 0x4000FFFF, 0x4000004Eu);
    RECT picture = {};
    RECT client = {};
    GetClientRect(background, &picture);
    GetClientRect(Dialog(), &client);
    EXPECT_EQ(picture.right, client.right);
    EXPECT_EQ(picture.bottom, client.bottom);
    EXPECT_NE(SendMessageW(background, STM_GETIMAGE, IMAGE_BITMAP, 0), 0);
    BITMAP bitmap = {};
    const HBITMAP resource =
        static_cast<HBITMAP>(LoadImageW(instance_, MAKEINTRESOURCEW(163), IMAGE_BITMAP, 0, 0, LR_CREATEDIBSECTION));
    ASSERT_NE(GetObjectW(resource, sizeof(bitmap), &bitmap), 0);
    EXPECT_EQ(bitmap.bmWidth, 640);
    EXPECT_EQ(bitmap.bmHeight, 192);
    EXPECT_EQ(bitmap.bmBitsPixel, 24);
    DeleteObject(resource);
}

TEST_F(StatusWindowTest, BackgroundIsCreatedLastWithTheseParameters)
{
    int calls = 0;
    SUBSTITUTE(CreateWindowExW)
    create([&](DWORD extended, const wchar_t* name, const wchar_t* text, DWORD style, int x, int y, int width,
               int height, HWND parent, HMENU menu, HINSTANCE instance, void* parameter) {
        ++calls;
        EXPECT_EQ(extended, 0u);
        EXPECT_STREQ(name, L"STATIC");
        EXPECT_STREQ(text, L"");
        EXPECT_EQ(style, 0x4000004Eu);
        EXPECT_EQ(x, 0);
        EXPECT_EQ(y, 0);
        RECT client = {};
        GetClientRect(parent, &client);
        EXPECT_EQ(width, client.right);
        EXPECT_EQ(height, client.bottom);
        EXPECT_EQ(parent, window_.dialog);
        EXPECT_EQ(menu, nullptr);
        EXPECT_EQ(instance, instance_);
        EXPECT_EQ(parameter, nullptr);
        return create.Original()(extended, name, text, style, x, y, width, height, parent, menu, instance, parameter);
    });
    Start();
    EXPECT_EQ(calls, 1);
}

TEST_F(StatusWindowTest, CarriesTheToolsIconInBothSizes)
{
    Start();
    const LRESULT icon = reinterpret_cast<LRESULT>(LoadIconW(instance_, MAKEINTRESOURCEW(101)));
    ASSERT_NE(icon, 0);
    EXPECT_EQ(SendMessageW(Dialog(), WM_GETICON, ICON_BIG, 0), icon);
    EXPECT_EQ(SendMessageW(Dialog(), WM_GETICON, ICON_SMALL, 0), icon);
}

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
        EXPECT_EQ(font.lfWeight, 400);
        EXPECT_EQ(font.lfWidth, 0);
        EXPECT_EQ(font.lfItalic, 0);
        EXPECT_EQ(font.lfUnderline, 0);
        EXPECT_EQ(font.lfCharSet, 0);
        EXPECT_EQ(font.lfQuality, 0);
    }
    EXPECT_EQ(SendMessageW(Control(1005), WM_GETFONT, 0, 0), SendMessageW(Control(1014), WM_GETFONT, 0, 0));
    EXPECT_STREQ(FontOf(1004).lfFaceName, L"Segoe MDL2 Assets");  // the template's
    EXPECT_EQ(FontOf(1004).lfWeight, 400);
}

// Proves: Time passes => the dots take turns every half second
TEST_F(StatusWindowTest, DotsTakeTurnsOnATimerOfTheBackground)
{
    Shared<std::wstring> texts;
    Shared<HWND> timers;
    SUBSTITUTE(SetTimer)
    timer([&](HWND window, UINT_PTR id, UINT milliseconds, TIMERPROC procedure) {
        EXPECT_EQ(id, 0u);
        EXPECT_EQ(milliseconds, 500u);
        EXPECT_EQ(procedure, nullptr);
        timers.Add(window);
        return timer.Original()(window, id, 10, procedure);  // a test has not that much time
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
    EXPECT_THAT(timers.Get(), testing::Each(background));
    EXPECT_GE(timers.Get().size(), 4u);  // armed again at every step
}

TEST_F(StatusWindowTest, EveryStepOfTheDotsInvalidatesTheDialogWithoutErasing)
{
    Shared<HWND> invalidated;
    SUBSTITUTE(SetTimer) noTimer([](HWND, UINT_PTR, UINT, TIMERPROC) { return UINT_PTR{1}; });
    Start();
    SUBSTITUTE(InvalidateRect)
    invalidate([&](HWND window, const RECT* area, BOOL erase) {
        EXPECT_EQ(area, nullptr);
        EXPECT_EQ(erase, FALSE);
        invalidated.Add(window);
        return invalidate.Original()(window, area, erase);
    });
    PostMessageW(Background(), WM_TIMER, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return !invalidated.Get().empty(); }));
    EXPECT_THAT(invalidated.Get(), ElementsAre(Dialog()));
    StopStatusWindow(window_);
}

TEST_F(StatusWindowTest, OtherTimersDoNotMoveTheDots)
{
    SUBSTITUTE(SetTimer) noTimer([](HWND, UINT_PTR, UINT, TIMERPROC) { return UINT_PTR{1}; });
    Start();
    PostMessageW(Dialog(), WM_TIMER, 0, 0);
    PostMessageW(Background(), WM_TIMER, 5, 0);
    PostMessageW(Background(), WM_TIMER, 1, 0);  // what SetTimer returns is not the id
    PostMessageW(Background(), WM_TIMER, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return Text(1005) != kDots[0]; }));
    EXPECT_EQ(Text(1005), kDots[1]);
    StopStatusWindow(window_);
}

struct StatusCase
{
    int status;
    std::wstring text;
};

void PrintTo(const StatusCase& status, std::ostream* stream)
{
    *stream << status.status;
}

class StatusText : public StatusWindowTest, public testing::WithParamInterface<StatusCase>
{
};
INSTANTIATE_TEST_SUITE_P(Codes, StatusText,
                         testing::Values(StatusCase{0, L"Checking System."},
                                         StatusCase{1, L"Downloading compatible version of Tavik Software."},
                                         StatusCase{2, L"Installing..."}, StatusCase{3, L""}, StatusCase{-1, L""}));

// Proves: A status is set => the text of its code is on the window when the call returns, the dialog is repainted; unknown codes are an empty text
TEST_P(StatusText, IsOnTheWindowWhenTheCallReturnsAndTheDialogIsInvalidated)
{
    SUBSTITUTE(SetTimer) noTimer([](HWND, UINT_PTR, UINT, TIMERPROC) { return UINT_PTR{1}; });
    Start(true);
    int invalidated = 0;
    SUBSTITUTE(InvalidateRect)
    invalidate([&](HWND window, const RECT* area, BOOL erase) {
        EXPECT_EQ(window, Dialog());
        EXPECT_EQ(area, nullptr);
        EXPECT_EQ(erase, FALSE);
        ++invalidated;
        return TRUE;
    });
    SetDlgItemTextW(Dialog(), 1004, L"before");
    SetStatus(window_, GetParam().status);
    EXPECT_EQ(Text(1004), GetParam().text);
    EXPECT_EQ(invalidated, 1);
    EXPECT_EQ(Text(1013), L"");  // the heading stays empty
    StopStatusWindow(window_);
}

// Proves: Not silent => picture and dialog are shown, in this order; the dialog is hidden for the box
TEST_F(StatusWindowTest, IsShownBackgroundFirst)
{
    Shared<std::pair<HWND, int>> shown;
    SUBSTITUTE(ShowWindow)
    show([&](HWND window, int command) {
        shown.Add({window, command});
        return show.Original()(window, command);
    });
    Start();
    EXPECT_THAT(shown.Get(), ElementsAre(std::pair(Background(), 5), std::pair(Dialog(), 5)));
}

// Proves: Silent => the window exists and its texts are set, but it is never shown; a silent run leaves it at its first text
TEST_F(StatusWindowTest, SilentWindowExistsWithItsTextsButIsNeverShown)
{
    Shared<HWND> shown;
    SUBSTITUTE(ShowWindow)
    show([&](HWND window, int command) {
        shown.Add(window);
        return show.Original()(window, command);
    });
    Start(true);
    EXPECT_TRUE(window_.ready);
    EXPECT_TRUE(window_.silent);
    SetStatus(window_, 2);
    EXPECT_EQ(Text(1004), L"Installing...");
    EXPECT_EQ(IsWindowVisible(Dialog()), FALSE);
    EXPECT_THAT(shown.Get(), IsEmpty());
}

// Proves: No module instance => every operation does nothing
TEST_F(StatusWindowTest, WithoutAnInstanceEveryOperationDoesNothing)
{
    int touched = 0;
    SUBSTITUTE(SetDlgItemTextW) set([&](HWND, int, const wchar_t*) { return ++touched, TRUE; });
    SUBSTITUTE(InvalidateRect) invalidate([&](HWND, const RECT*, BOOL) { return ++touched, TRUE; });
    SUBSTITUTE(PostThreadMessageW) post([&](DWORD, UINT, WPARAM, LPARAM) { return ++touched, TRUE; });
    SUBSTITUTE(Sleep) sleep([&](DWORD) { ++touched; });
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
        EXPECT_EQ(message, 0x10u);
        EXPECT_EQ(first, 0u);
        EXPECT_EQ(second, 0);
        return post.Original()(thread, message, first, second);
    });
    StopStatusWindow(window_);
    EXPECT_EQ(posts, 1);
    EXPECT_FALSE(window_.thread.joinable());
    EXPECT_EQ(IsWindow(dialog), FALSE);  // ended with its thread
    StopStatusWindow(window_);
    EXPECT_EQ(posts, 1);
}

TEST_F(StatusWindowTest, StartLooksForTheReadyFlagEveryTenthOfASecondAndNoLongerThanNeeded)
{
    Shared<DWORD> sleeps;
    SUBSTITUTE(Sleep)
    sleep([&](DWORD milliseconds) {
        if (milliseconds != 0)  // the thread library's own
        {
            sleeps.Add(milliseconds);
        }
        sleep.Original()(milliseconds);
    });
    Start();
    EXPECT_TRUE(window_.ready);
    EXPECT_THAT(sleeps.Get(), testing::Each(100u));
    EXPECT_GE(sleeps.Get().size(), 1u);
    EXPECT_LT(sleeps.Get().size(), 20u);
}

// A start whose window cannot be made: the sleeps are counted instead of slept.
class BrokenStart : public StatusWindowTest
{
protected:
    void StartAndExpectTwoSecondsOfWaiting()
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
        SetStatus(window_, 1);  // goes to whatever is stored
        StopStatusWindow(window_);
        EXPECT_FALSE(window_.thread.joinable());
    }
};

TEST_F(BrokenStart, WithoutADialog)
{
    SUBSTITUTE(CreateDialogParamW)
    create([this](HINSTANCE instance, const wchar_t* name, HWND owner, DLGPROC procedure, LPARAM parameter) {
        EXPECT_EQ(instance, instance_);
        EXPECT_EQ(name, MAKEINTRESOURCEW(161));
        EXPECT_EQ(owner, nullptr);
        EXPECT_NE(procedure, nullptr);
        EXPECT_EQ(parameter, 0);
        return FailWith(8, HWND{nullptr});
    });
    StartAndExpectTwoSecondsOfWaiting();
    EXPECT_EQ(window_.dialog, nullptr);
}

// Proves: Picture, dialog or the larger font cannot be created => the thread ends, the start waits its two seconds, the later stop joins an ended thread
TEST_F(BrokenStart, WithoutABackground)
{
    Shared<HWND> shown;
    SUBSTITUTE(CreateWindowExW)
    create([](DWORD, const wchar_t*, const wchar_t*, DWORD, int, int, int, int, HWND, HMENU, HINSTANCE, void*) {
        return FailWith(8, HWND{nullptr});
    });
    SUBSTITUTE(ShowWindow) show([&](HWND window, int) { return shown.Add(window), TRUE; });
    StartAndExpectTwoSecondsOfWaiting();
    EXPECT_THAT(shown.Get(), IsEmpty());
}

TEST_F(BrokenStart, WithoutTheHeadingsFont)
{
    int timers = 0;
    SUBSTITUTE(SetTimer) timer([&](HWND, UINT_PTR, UINT, TIMERPROC) { return ++timers, UINT_PTR{1}; });
    int fonts = 0;
    SUBSTITUTE(CreateFontW)
    create([&](int height, int width, int escapement, int orientation, int weight, DWORD italic, DWORD underline,
               DWORD strike, DWORD charset, DWORD output, DWORD clip, DWORD quality, DWORD pitch, const wchar_t* face) {
        return ++fonts == 1 ? HFONT{nullptr}
                            : create.Original()(height, width, escapement, orientation, weight, italic, underline,
                                                strike, charset, output, clip, quality, pitch, face);
    });
    StartAndExpectTwoSecondsOfWaiting();
    EXPECT_EQ(timers, 0);
}

// Proves: The smaller font cannot be created => it goes on
TEST_F(StatusWindowTest, WithoutTheSmallFontItGoesOn)
{
    int fonts = 0;
    SUBSTITUTE(CreateFontW)
    create([&](int height, int width, int escapement, int orientation, int weight, DWORD italic, DWORD underline,
               DWORD strike, DWORD charset, DWORD output, DWORD clip, DWORD quality, DWORD pitch, const wchar_t* face) {
        return ++fonts == 2 ? HFONT{nullptr}
                            : create.Original()(height, width, escapement, orientation, weight, italic, underline,
                                                strike, charset, output, clip, quality, pitch, face);
    });
    Start();
    EXPECT_TRUE(window_.ready);
}

// Proves: The window ends => the larger font is deleted
TEST_F(StatusWindowTest, HeadingsFontIsDeletedAtTheEnd)
{
    Start();
    const HGDIOBJ heading = reinterpret_cast<HGDIOBJ>(SendMessageW(Control(1013), WM_GETFONT, 0, 0));
    Shared<HGDIOBJ> deleted;
    SUBSTITUTE(DeleteObject)
    remove([&](HGDIOBJ object) {
        deleted.Add(object);
        return remove.Original()(object);
    });
    StopStatusWindow(window_);
    EXPECT_THAT(deleted.Get(), Contains(heading));
}

// --- Scaling: the two functions are looked up, either may be missing.
Shared<std::string>* scalingCalls = nullptr;

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

class Scaling : public StatusWindowTest
{
protected:
    Scaling() { scalingCalls = &calls_; }

    Shared<std::string> calls_;
    bool hasAwareness_ = true;
    bool hasHosting_ = true;
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
        if (reinterpret_cast<UINT_PTR>(name) > 0xFFFF)
        {
            const std::string text = name;
            if (text == "SetThreadDpiAwarenessContext")
            {
                return hasAwareness_ ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FakeSetAwareness)) : nullptr;
            }
            if (text == "SetThreadDpiHostingBehavior")
            {
                return hasHosting_ ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&FakeSetHosting)) : nullptr;
            }
        }
        return lookUp_.Original()(module, name);
    }};
    SUBSTITUTE(CreateDialogParamW)
    create_{[this](HINSTANCE instance, const wchar_t* name, HWND owner, DLGPROC procedure, LPARAM parameter) {
        calls_.Add("dialog");
        return create_.Original()(instance, name, owner, procedure, parameter);
    }};
};

// Proves: The system has the scaling functions, one of them, or neither => they are called before the dialog is made and taken back on every way out
TEST_F(Scaling, IsLeftToTheSystemBeforeTheDialogIsMadeAndGivenBackAtTheEnd)
{
    Start();
    StopStatusWindow(window_);
    EXPECT_THAT(calls_.Get(),
                ElementsAre("User32", "awareness -1", "hosting 1", "dialog", "hosting 55", "awareness -77"));
}

TEST_F(Scaling, IsGivenBackWhenTheBackgroundCannotBeMade)
{
    SUBSTITUTE(CreateWindowExW)
    create([](DWORD, const wchar_t*, const wchar_t*, DWORD, int, int, int, int, HWND, HMENU, HINSTANCE, void*) {
        return FailWith(8, HWND{nullptr});
    });
    SUBSTITUTE(Sleep) sleep([&](DWORD) { sleep.Original()(1); });
    Start();
    StopStatusWindow(window_);
    EXPECT_THAT(calls_.Get(),
                ElementsAre("User32", "awareness -1", "hosting 1", "dialog", "hosting 55", "awareness -77"));
}

TEST_F(Scaling, IsGivenBackWhenTheFontCannotBeMade)
{
    SUBSTITUTE(CreateFontW)
    create([](int, int, int, int, int, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD, const wchar_t*) {
        return HFONT{nullptr};
    });
    SUBSTITUTE(Sleep) sleep([&](DWORD) { sleep.Original()(1); });
    Start();
    StopStatusWindow(window_);
    EXPECT_THAT(calls_.Get(),
                ElementsAre("User32", "awareness -1", "hosting 1", "dialog", "hosting 55", "awareness -77"));
}

TEST_F(Scaling, MayKnowOnlyTheAwareness)
{
    hasHosting_ = false;
    Start();
    StopStatusWindow(window_);
    EXPECT_THAT(calls_.Get(), ElementsAre("User32", "awareness -1", "dialog", "awareness -77"));
}

TEST_F(Scaling, MayKnowOnlyTheHosting)
{
    hasAwareness_ = false;
    Start();
    StopStatusWindow(window_);
    EXPECT_THAT(calls_.Get(), ElementsAre("User32", "hosting 1", "dialog", "hosting 55"));
}

TEST_F(Scaling, MayKnowNeither)
{
    hasAwareness_ = false;
    hasHosting_ = false;
    Start();
    EXPECT_TRUE(window_.ready);
    StopStatusWindow(window_);
    EXPECT_THAT(calls_.Get(), ElementsAre("User32", "dialog"));
}

// --- Mouse
class Mouse : public StatusWindowTest
{
protected:
    ~Mouse() override { StopStatusWindow(window_); }

    static void Input(DWORD flags, LONG x = 0, LONG y = 0)
    {
        INPUT input = {};
        input.type = INPUT_MOUSE;
        input.mi.dwFlags = flags;
        input.mi.dx = x;
        input.mi.dy = y;
        EXPECT_EQ(SendInput(1, &input, sizeof(input)), 1u);
    }
    POINT Middle(HWND window) const
    {
        RECT place = {};
        GetWindowRect(window, &place);
        return {(place.left + place.right) / 2, (place.top + place.bottom) / 2};
    }
    bool acts_ = true;
    Shared<WPARAM> actions_;
    Shared<std::string> order_;
    SUBSTITUTE(ReleaseCapture)
    release_{[this] {
        order_.Add("release");
        return release_.Original()();
    }};
    SUBSTITUTE(SendMessageW)
    send_{[this](HWND window, UINT message, WPARAM first, LPARAM second) {
        if (message == WM_SYSCOMMAND)
        {
            EXPECT_EQ(window, window_.dialog);
            EXPECT_EQ(second, 0);
            order_.Add("command");
            actions_.Add(first);
            return acts_ ? send_.Original()(window, message, first, second) : LRESULT{0};
        }
        return send_.Original()(window, message, first, second);
    }};
};

// Proves: A click on the mark => minimises; the texts go on changing, the box comes up all the same
TEST_F(Mouse, ClickOnTheMarkMinimises)
{
    Start();
    const POINT mark = Middle(Control(1014));
    SetCursorPos(mark.x, mark.y);
    Input(MOUSEEVENTF_LEFTDOWN);
    Input(MOUSEEVENTF_LEFTUP);
    EXPECT_TRUE(WaitUntil([&] { return IsIconic(Dialog()) != FALSE; }));
    EXPECT_THAT(actions_.Get(), ElementsAre(WPARAM{0xF020}));
    EXPECT_EQ(order_.Get().front(), "release");
}

// Proves: The mouse is pressed anywhere else => it drags the window, as often as one likes; a mere click does nothing
TEST_F(Mouse, DragAnywhereElseMovesTheWindow)
{
    Start();
    RECT before = {};
    GetWindowRect(Dialog(), &before);
    const LONG x = before.left + 30;
    const LONG y = before.top + 30;
    SetCursorPos(x, y);
    Input(MOUSEEVENTF_LEFTDOWN);
    EXPECT_TRUE(WaitUntil([&] { return !actions_.Get().empty(); }));
    EXPECT_THAT(actions_.Get(), ElementsAre(WPARAM{0xF012}));
    EXPECT_EQ(order_.Get().front(), "release");
    for (int step = 0; step < 6; ++step)
    {
        Sleep(10);
        Input(MOUSEEVENTF_MOVE, 5, 4);  // small steps are not accelerated
    }
    Sleep(10);
    Input(MOUSEEVENTF_LEFTUP);
    RECT after = {};
    EXPECT_TRUE(WaitUntil([&] {
        GetWindowRect(Dialog(), &after);
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
    EXPECT_TRUE(WaitUntil([&] { return !actions_.Get().empty(); }));
    EXPECT_THAT(actions_.Get(), ElementsAre(WPARAM{0xF012}));
}

// Proves: The mouse over the mark => a hand
TEST_F(Mouse, OverTheMarkTheCursorIsAHand)
{
    Shared<HCURSOR> cursors;
    SUBSTITUTE(SetCursor)
    set([&](HCURSOR cursor) {
        cursors.Add(cursor);
        return set.Original()(cursor);
    });
    Start();
    PostMessageW(Control(1004), WM_MOUSEMOVE, 0, 0);
    PostMessageW(Dialog(), WM_MOUSEMOVE, 0, 0);
    PostMessageW(Control(1014), WM_MOUSEMOVE, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return !cursors.Get().empty(); }));
    EXPECT_THAT(cursors.Get(), ElementsAre(LoadCursorW(nullptr, MAKEINTRESOURCEW(32649))));
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
    ASSERT_TRUE(WaitUntil([&] { return !actions_.Get().empty(); }));
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
class EndingMessage : public StatusWindowTest, public testing::WithParamInterface<UINT>
{
};
INSTANTIATE_TEST_SUITE_P(Messages, EndingMessage, testing::Values(0x02, 0x10, 0x12));

// Proves: A closing message arrives, for the thread or the window => the loop ends without dispatching it; other messages are dispatched
TEST_P(EndingMessage, ForTheThreadLeavesTheLoopWithoutBeingDispatched)
{
    Shared<UINT> dispatched;
    SUBSTITUTE(DispatchMessageW)
    dispatch([&](const MSG* message) {
        dispatched.Add(message->message);
        return dispatch.Original()(message);
    });
    Start();
    PostThreadMessageW(window_.threadId, GetParam(), 0, 0);
    EXPECT_TRUE(ThreadEnds());
    EXPECT_THAT(dispatched.Get(), testing::Not(Contains(GetParam())));
}

TEST_P(EndingMessage, ForTheWindowLeavesTheLoopAsWell)
{
    Start();
    PostMessageW(Dialog(), GetParam(), 0, 0);
    EXPECT_TRUE(ThreadEnds());
}

TEST_F(StatusWindowTest, OtherMessagesAreDispatchedAndTheLoopGoesOn)
{
    Shared<UINT> dispatched;
    SUBSTITUTE(DispatchMessageW)
    dispatch([&](const MSG* message) {
        dispatched.Add(message->message);
        return dispatch.Original()(message);
    });
    Start();
    PostMessageW(Dialog(), WM_APP + 1, 0, 0);
    PostMessageW(Dialog(), WM_APP + 2, 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return testing::Value(dispatched.Get(), Contains(UINT{WM_APP + 2})); }));
    EXPECT_THAT(dispatched.Get(), Contains(UINT{WM_APP + 1}));
    EXPECT_NE(IsWindow(Dialog()), FALSE);
    StopStatusWindow(window_);
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
        EXPECT_EQ(window, nullptr);
        EXPECT_EQ(first, 0u);
        EXPECT_EQ(last, 0u);
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
    EXPECT_EQ(GetTextColor(context), 0x00FFFFF0u);
    EXPECT_EQ(GetBkMode(context), 1);
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
