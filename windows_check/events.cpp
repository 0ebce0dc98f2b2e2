// The named event of the running instance.
#include <windows.h>

#include "base/handles.h"
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

repair::EventHandle MakeEvent(const std::wstring& name)
{
    return repair::EventHandle(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
}

std::wstring Told(const repair::EventHandle& event, DWORD error)
{
    return (event ? L"a handle, " : L"none, ") + Number(error);
}

FACT(events, fresh)
{
    SetLastError(ERROR_ALREADY_EXISTS);  // as a call before may have left it
    const repair::EventHandle event = MakeEvent(OwnName(L"fresh"));
    const DWORD error = GetLastError();
    return Saw(event ? Number(error) : L"none");
}

FACT(events, second)
{
    const repair::EventHandle first = MakeEvent(OwnName(L"second"));
    const repair::EventHandle second = MakeEvent(OwnName(L"second"));
    const DWORD error = GetLastError();
    return Saw(Told(second, error));
}

FACT(events, free_again)
{
    MakeEvent(OwnName(L"again"));
    const repair::EventHandle event = MakeEvent(OwnName(L"again"));
    return Saw(Number(GetLastError()));
}

FACT(events, name_of_a_mutex)
{
    const repair::EventHandle mutex(CreateMutexW(nullptr, FALSE, OwnName(L"mutex").c_str()));
    const repair::EventHandle event = MakeEvent(OwnName(L"mutex"));
    const DWORD error = GetLastError();
    return Saw(Told(event, error));
}

FACT(events, scope)
{
    Need(ThisPc().session != 0, L"in session 0 the session's names are those of the whole PC");
    const std::wstring name = OwnName(L"local");
    const repair::EventHandle event = MakeEvent(name);
    const repair::EventHandle local(OpenEventW(SYNCHRONIZE, FALSE, (L"Local\\" + name).c_str()));
    const repair::EventHandle global(OpenEventW(SYNCHRONIZE, FALSE, (L"Global\\" + name).c_str()));
    return Saw((local ? L"the session's" : L"not the session's") + std::wstring(global ? L" and the PC's" : L""));
}
}  // namespace
}  // namespace windows_check
