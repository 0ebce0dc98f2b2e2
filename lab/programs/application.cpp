// Plays the programs of the desktop edition: records its start, then stays and exits as the machine's description says.
// It has no window, so that nothing waits for a display.
#include "program.h"

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int)
{
    // Made before the start is recorded: from then on the program can be asked to end.
    const HANDLE exit = programs::IsYes(L"deaf") ? nullptr : CreateEventW(nullptr, TRUE, FALSE, programs::kExitEvent);
    programs::RecordStart();
    const DWORD stay = programs::StayTime();
    if (exit != nullptr)
    {
        WaitForSingleObject(exit, stay);
    }
    else
    {
        Sleep(stay);
    }
    return programs::ExitCode();
}
