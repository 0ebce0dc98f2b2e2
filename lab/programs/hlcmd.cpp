// Plays the command tool of the desktop edition: "hlcmd.exe exit" asks the running programs to end.
#include <string_view>

#include "program.h"

namespace
{
constexpr DWORD kPollMs = 10;
constexpr DWORD kLimitMs = 2000;

// Asks until the event is gone: it goes with the last program that listens.
void AskProgramsToEnd()
{
    for (DWORD waited = 0; waited < kLimitMs; waited += kPollMs)
    {
        const HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, programs::kExitEvent);
        if (event == nullptr)
        {
            return;
        }
        SetEvent(event);
        CloseHandle(event);
        Sleep(kPollMs);
    }
}
}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t* arguments, int)
{
    programs::RecordStart();
    if (std::wstring_view(arguments) == L"exit" && !programs::IsYes(L"ignore"))
    {
        AskProgramsToEnd();
    }
    Sleep(programs::StayTime());
    return programs::ExitCode();
}
