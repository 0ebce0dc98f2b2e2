// Starting, ending and killing processes; the named event of the running instance.
#include <windows.h>
#include <shellapi.h>

#include <cstdlib>
#include <cwchar>
#include <exception>
#include <stdexcept>

#include "base/handles.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
// Starts a program as the tool does. Returns its exit code, or the code of the failure.
std::wstring StartByShell(const std::wstring& file, const std::wstring& parameters, const wchar_t* folder = nullptr)
{
    SHELLEXECUTEINFOW start = {};
    start.cbSize = sizeof(start);
    start.fMask = SEE_MASK_NOZONECHECKS | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOASYNC | SEE_MASK_NOCLOSEPROCESS;
    start.lpVerb = L"open";
    start.lpFile = file.c_str();
    start.lpParameters = parameters.c_str();
    start.lpDirectory = folder;
    start.nShow = SW_HIDE;
    if (ShellExecuteExW(&start) == FALSE)
    {
        return Number(GetLastError());
    }
    const repair::ProcessHandle process(start.hProcess);
    DWORD exitCode = 0;
    WaitForSingleObject(process.Get(), 15'000);
    return GetExitCodeProcess(process.Get(), &exitCode) != FALSE ? L"started, exit code " + Hex(exitCode)
                                                                 : L"started without a handle";
}

FACT(processes, exit_codes)
{
    return OfEach({L"exit -1", L"exit -2147024891"}, [](const std::wstring& probe) { return Ask(probe).end; });
}

FACT(processes, crash_is_quiet)
{
    return OfEach({L"crash memory", L"crash throw"}, [](const std::wstring& probe) { return Ask(probe).end; });
}

FACT(processes, arguments)
{
    // What the tool's switches could look like on a command line.
    int count = 0;
    wchar_t** const found =
        CommandLineToArgvW(L"\"C:\\a b\\t.exe\"  -VLT -Path \"C:\\x y\\\" -Z\" \"\" c\\\"d", &count);
    std::wstring seen;
    for (int i = 0; i < count; ++i)
    {
        seen += L"[" + std::wstring(found[i]) + L"]";
    }
    LocalFree(found);
    return seen;
}

FACT(processes, shell_missing_file)
{
    const std::wstring folder = MakeFolder(L"start");
    return OfEach({folder + L"\\none.exe", folder + L"\\none\\none.exe"},
                  [](const std::wstring& file) { return StartByShell(file, L""); });
}

FACT(processes, shell_parameters)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    const std::wstring folder = MakeFolder(L"parameters");
    const std::wstring output = folder + L"\\a b.txt";
    const std::wstring given = L" /NCRC /S /D=C:\\a b\\c";
    const std::wstring end =
        StartByShell(ThisPc().program, L"--probe arguments \"" + output + L"\"" + given, folder.c_str());
    const std::string bytes = ReadBytes(output);
    const std::wstring line(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
    const bool isUnchanged = line.ends_with(given + L"\n" + folder);
    return {isUnchanged ? L"unchanged, in the folder" : L"changed: " + Quoted(line), end};
}

// Starts a copy of this program while the copy is held open.
FACT(processes, shell_held_program)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    const std::wstring program = MakeFolder(L"start") + L"\\held.exe";
    CopyFileW(ThisPc().program.c_str(), program.c_str(), FALSE);
    const repair::FileHandle held = Hold(program, GENERIC_READ, FILE_SHARE_READ);
    return StartByShell(program, L"--probe exit 1603");
}

FACT(processes, taskkill_one)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    // A copy of this program under a name that nothing else has.
    const std::wstring name = L"TavikWindowsCheckEnd" + Number(GetCurrentProcessId()) + L".exe";
    const std::wstring program = MakeFolder(L"start") + L"\\" + name;
    CopyFileW(ThisPc().program.c_str(), program.c_str(), FALSE);
    const repair::ProcessHandle process = StartProbe(program, L"sleep", nullptr, nullptr);
    Need(static_cast<bool>(process), L"the copy of the program could not be started");
    // The tool has a blank in front of the parameters, too.
    const std::wstring killer = StartByShell(SystemFolder() + L"\\taskkill.exe", L" /IM \"" + name + L"\" /F");
    const bool isGone = WaitForSingleObject(process.Get(), 2000) == WAIT_OBJECT_0;
    TerminateProcess(process.Get(), 0);
    return killer + (isGone ? L", ended" : L", still there");
}

PROBE(exit)
{
    return static_cast<int>(std::wcstol(argument.c_str(), nullptr, 10));
}

PROBE(sleep)
{
    Sleep(20'000);
    return 0;
}

// Writes its whole command line and its current folder into a file.
PROBE(arguments)
{
    const std::wstring folder = Filled([](wchar_t* path, DWORD size) { GetCurrentDirectoryW(size, path); });
    const std::wstring text = std::wstring(GetCommandLineW()) + L"\n" + folder;
    WriteBytes(argument, {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)});
    return 0;
}

// The same two handlers as in the tool's entry.
PROBE(crash)
{
    std::set_terminate([] {
        TerminateProcess(GetCurrentProcess(), 3);
        std::abort();
    });
    SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG {
        TerminateProcess(GetCurrentProcess(), 3);
        return EXCEPTION_CONTINUE_SEARCH;
    });
    if (argument == L"throw")
    {
        throw std::runtime_error("not caught");
    }
    RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    return 0;
}

std::wstring OwnName(const wchar_t* what)
{
    return std::wstring(L"TavikWindowsCheck-") + what + L"-" + Number(GetCurrentProcessId());
}

repair::EventHandle MakeEvent(const std::wstring& name)
{
    return repair::EventHandle(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
}

FACT(events, fresh)
{
    MakeEvent(OwnName(L"fresh"));
    SetLastError(ERROR_ALREADY_EXISTS);  // an earlier call may leave this error
    const repair::EventHandle event = MakeEvent(OwnName(L"fresh"));
    const DWORD error = GetLastError();
    return event ? Number(error) : L"none";
}

FACT(events, second)
{
    const repair::EventHandle first = MakeEvent(OwnName(L"second"));
    const repair::EventHandle second = MakeEvent(OwnName(L"second"));
    const DWORD error = GetLastError();
    return (second ? L"a handle, " : L"none, ") + Number(error);
}

FACT(events, scope)
{
    Need(ThisPc().session != 0, L"in session 0 the session's names are those of the whole PC");
    const std::wstring name = OwnName(L"local");
    const repair::EventHandle event = MakeEvent(name);
    const repair::EventHandle local(OpenEventW(SYNCHRONIZE, FALSE, (L"Local\\" + name).c_str()));
    const repair::EventHandle global(OpenEventW(SYNCHRONIZE, FALSE, (L"Global\\" + name).c_str()));
    return (local ? L"the session's" : L"not the session's") + std::wstring(global ? L" and the PC's" : L"");
}
}  // namespace
}  // namespace windows_check
