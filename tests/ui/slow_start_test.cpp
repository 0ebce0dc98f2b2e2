// A window thread that takes longer than the main thread is willing to wait.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/substitute.h"
#include "ui/status_window.h"

IMPORTED(CreateDialogParamW)
IMPORTED(Sleep)

namespace repair
{
namespace
{
// Proves: The thread needs longer than two seconds => the start returns anyway; later texts go to whatever handle is there
TEST(SlowStart, IsNotWaitedForLongerThanTwoSecondsAndTheWindowWorksOnceItIsThere)
{
    const std::thread::id mainThread = std::this_thread::get_id();
    const HANDLE goOn = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> waits = 0;
    StatusWindow window;
    SUBSTITUTE(Sleep)
    sleep([&](DWORD milliseconds) {
        if (std::this_thread::get_id() == mainThread && milliseconds == 100)
        {
            ++waits;  // counted instead of slept
            return;
        }
        sleep.Original()(milliseconds);
    });
    SUBSTITUTE(CreateDialogParamW)
    create([&](HINSTANCE instance, const wchar_t* name, HWND owner, DLGPROC procedure, LPARAM parameter) {
        WaitForSingleObject(goOn, 10'000);
        return create.Original()(instance, name, owner, procedure, parameter);
    });
    StartStatusWindow(window, GetModuleHandleW(nullptr), true);
    EXPECT_EQ(waits, 20);
    EXPECT_FALSE(window.ready);
    EXPECT_EQ(window.dialog, nullptr);
    SetStatus(window, 1);  // there is no handle yet: lost, and no harm done

    SetEvent(goOn);
    for (int waited = 0; !window.ready && waited < 3000; waited += 5)
    {
        Sleep(5);
    }
    ASSERT_TRUE(window.ready);
    SetStatus(window, 2);
    wchar_t text[100] = {};
    SendMessageW(GetDlgItem(window.dialog, 1004), WM_GETTEXT, 100, reinterpret_cast<LPARAM>(text));
    EXPECT_STREQ(text, L"Installing...");
    StopStatusWindow(window);
    EXPECT_FALSE(window.thread.joinable());
    CloseHandle(goOn);
}
}  // namespace
}  // namespace repair
