// The named event that keeps a second instance away.
#include <windows.h>

#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::wstring OwnName(const wchar_t* what)
{
    return std::wstring(L"TavikWindowsCheck-") + what + L"-" + Number(GetCurrentProcessId());
}

Seen FreshEvent()
{
    SetLastError(ERROR_ALREADY_EXISTS);  // as something before may have left it
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, OwnName(L"fresh").c_str());
    const DWORD error = GetLastError();
    CloseHandle(event);
    return Saw(event == nullptr ? L"none" : Number(error));
}

Seen SecondEvent()
{
    const std::wstring name = OwnName(L"second");
    const HANDLE first = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    const HANDLE second = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    const DWORD error = GetLastError();
    CloseHandle(second);
    CloseHandle(first);
    return Saw((second == nullptr ? L"none, " : L"a handle, ") + Number(error));
}

Seen FreeAgain()
{
    const std::wstring name = OwnName(L"again");
    CloseHandle(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    const DWORD error = GetLastError();
    CloseHandle(event);
    return Saw(Number(error));
}

Seen NameOfMutex()
{
    const std::wstring name = OwnName(L"mutex");
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, name.c_str());
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    const DWORD error = GetLastError();
    if (event != nullptr)
    {
        CloseHandle(event);
    }
    CloseHandle(mutex);
    return Saw((event == nullptr ? L"none, " : L"a handle, ") + Number(error));
}

Seen LocalName()
{
    if (ThisMachine().session == 0)
    {
        return DoesNotApply(L"in session 0 the session's names are the machine's");
    }
    const std::wstring name = OwnName(L"local");
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    const HANDLE local = OpenEventW(SYNCHRONIZE, FALSE, (L"Local\\" + name).c_str());
    const HANDLE global = OpenEventW(SYNCHRONIZE, FALSE, (L"Global\\" + name).c_str());
    std::wstring seen = local != nullptr ? L"the session's" : L"not the session's";
    seen += global != nullptr ? L" and the machine's" : L"";
    for (const HANDLE handle : {event, local, global})
    {
        if (handle != nullptr)
        {
            CloseHandle(handle);
        }
    }
    return Saw(seen);
}
}  // namespace

std::vector<Check> EventChecks()
{
    return {
        {"events.fresh", FreshEvent},     {"events.second", SecondEvent},
        {"events.free_again", FreeAgain}, {"events.name_of_a_mutex", NameOfMutex},
        {"events.scope", LocalName},
    };
}
}  // namespace windows_check
