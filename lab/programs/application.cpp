// Stands in for the programs of the desktop edition: notes its start, stays as long as the machine says, ends with the
// code that it says. Windowless, so that nothing waits for a display.
#include "program.h"

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int)
{
    // Made before the start is noted: whoever saw the note can ask the program to end.
    const HANDLE exit = programs::IsYes(L"deaf") ? nullptr : CreateEventW(nullptr, TRUE, FALSE, programs::kExitEvent);
    programs::RecordStart();
    const DWORD stay = programs::StayTime();
    if (exit != nullptr)
        WaitForSingleObject(exit, stay);
    else
        Sleep(stay);
    return programs::ExitCode();
}
