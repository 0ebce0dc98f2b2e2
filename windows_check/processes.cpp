// Starting, ending and killing processes.
#include <windows.h>
#include <shellapi.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr DWORD kWaitMs = 15'000;

struct Started
{
    bool isOk = false;
    DWORD error = 0;
    bool hasHandle = false;
    DWORD exitCode = 0;
};

// As the tool starts programs.
Started StartByShell(const std::wstring& file, const std::wstring& parameters, const wchar_t* folder)
{
    SHELLEXECUTEINFOW start = {};
    start.cbSize = sizeof(start);
    start.fMask = SEE_MASK_NOZONECHECKS | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOASYNC | SEE_MASK_NOCLOSEPROCESS;
    start.lpVerb = L"open";
    start.lpFile = file.c_str();
    start.lpParameters = parameters.c_str();
    start.lpDirectory = folder;
    start.nShow = SW_HIDE;
    Started result;
    result.isOk = ShellExecuteExW(&start) != FALSE;
    result.error = result.isOk ? 0 : GetLastError();
    result.hasHandle = start.hProcess != nullptr;
    if (result.hasHandle)
    {
        WaitForSingleObject(start.hProcess, kWaitMs);
        GetExitCodeProcess(start.hProcess, &result.exitCode);
        CloseHandle(start.hProcess);
    }
    return result;
}

std::wstring Told(const Started& started)
{
    if (!started.isOk)
    {
        return Number(started.error);
    }
    return started.hasHandle ? L"started, exit code " + Hex(started.exitCode) : L"started without a handle";
}

std::wstring TaskKill()
{
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    return std::wstring(folder) + L"\\taskkill.exe";
}

FACT(processes, exit_codes)
{
    std::vector<std::wstring> seen;
    for (const wchar_t* code : {L"-1", L"-2147024891"})
    {
        const Answer answer = Ask(ThisPc().program, L"exit", code);
        seen.push_back(answer.hasEnded ? Hex(answer.exitCode) : L"not ended");
    }
    return Saw(Joined(seen));
}

Seen Crash(const wchar_t* how)
{
    const Answer answer = Ask(ThisPc().program, L"crash", how);
    return Saw(answer.hasEnded ? L"exit code " + Number(answer.exitCode) : L"still there");
}

SHORT_FACT(processes, crash_is_quiet, Crash(L"memory"))
SHORT_FACT(processes, throw_is_quiet, Crash(L"throw"))

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
    return Saw(seen);
}

SHORT_FACT(processes, shell_handle, Saw(Told(StartByShell(ThisPc().program, L"--probe exit 1603", nullptr))))

FACT(processes, shell_missing_file)
{
    const std::wstring folder = MakeFolder(L"start");
    return Saw(Told(StartByShell(folder + L"\\none.exe", L"", nullptr)) + L", folder missing: " +
               Told(StartByShell(folder + L"\\none\\none.exe", L"", nullptr)));
}

FACT(processes, shell_missing_folder)
{
    const std::wstring folder = MakeFolder(L"start") + L"\\none";
    return Saw(Told(StartByShell(ThisPc().program, L"--probe exit 5", folder.c_str())));
}

FACT(processes, shell_parameters)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    const std::wstring folder = MakeFolder(L"parameters");
    const std::wstring output = folder + L"\\a b.txt";
    const std::wstring parameters = L"--probe arguments \"" + output + L"\" /NCRC /S /D=C:\\a b\\c";
    const Started started = StartByShell(ThisPc().program, parameters, folder.c_str());
    FILE* const file = _wfopen(output.c_str(), L"rb");
    if (file == nullptr)
    {
        return Saw(L"nothing was written: " + Told(started));
    }
    wchar_t text[2048] = {};
    const size_t count = std::fread(text, sizeof(wchar_t), std::size(text) - 1, file);
    std::fclose(file);
    const std::wstring line(text, count);
    const size_t end = line.find(L'\n');
    const std::wstring command = line.substr(0, end);
    const std::wstring where = line.substr(end + 1);
    const bool isWhole = command.ends_with(L" /NCRC /S /D=C:\\a b\\c");
    return Saw((isWhole ? L"unchanged" : L"changed: " + command) +
               (where == folder ? std::wstring(L", in the folder") : L", in " + where));
}

// Starts a copy of this program, which ends with the code, while the copy is open.
Seen StartWhileOpen(DWORD share, const std::wstring& code)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    const std::wstring program = MakeFolder(L"start") + L"\\open" + code + L".exe";
    CopyFileW(ThisPc().program.c_str(), program.c_str(), FALSE);
    const repair::FileHandle held = Hold(program, GENERIC_READ, share);
    return Saw(Told(StartByShell(program, L"--probe exit " + code, nullptr)));
}

SHORT_FACT(processes, shell_locked_program, StartWhileOpen(0, L"6"))
SHORT_FACT(processes, shell_held_program, StartWhileOpen(FILE_SHARE_READ, L"7"))

FACT(processes, taskkill_unknown)
{
    // The tool has a blank in front of the parameters, too.
    return Saw(Told(StartByShell(TaskKill(), L" /IM \"TavikWindowsCheckUnknown.exe\" /F", nullptr)));
}

FACT(processes, taskkill_one)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    // A copy of this program under a name that nothing else has.
    const std::wstring name = L"TavikWindowsCheckEnd" + Number(GetCurrentProcessId()) + L".exe";
    const std::wstring program = MakeFolder(L"start") + L"\\" + name;
    CopyFileW(ThisPc().program.c_str(), program.c_str(), FALSE);
    std::wstring command = L"\"" + program + L"\" --probe sleep";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                       &startup, &process) == 0)
    {
        return Saw(L"the program could not be started: " + Number(GetLastError()));
    }
    const Started killer = StartByShell(TaskKill(), L" /IM \"" + name + L"\" /F", nullptr);
    const bool isGone = WaitForSingleObject(process.hProcess, 2000) == WAIT_OBJECT_0;
    TerminateProcess(process.hProcess, 0);
    WaitForSingleObject(process.hProcess, 5000);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return Saw(Told(killer) + (isGone ? L", ended" : L", still there"));
}

SHORT_FACT(processes, taskkill_is_there, Saw(YesNo(GetFileAttributesW(TaskKill().c_str()) != INVALID_FILE_ATTRIBUTES)))
PROBE(exit)
{
    return count > 0 ? static_cast<int>(std::wcstol(arguments[0], nullptr, 10)) : 0;
}

PROBE(sleep)
{
    Sleep(20'000);
    return 0;
}

// Writes its whole command line and its current folder into the file that is named first.
PROBE(arguments)
{
    if (count == 0)
    {
        return 1;
    }
    wchar_t folder[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, folder);
    const std::wstring text = std::wstring(GetCommandLineW()) + L"\n" + folder;
    FILE* const file = _wfopen(arguments[0], L"wb");
    if (file == nullptr)
    {
        return 1;
    }
    std::fwrite(text.data(), sizeof(wchar_t), text.size(), file);
    return std::fclose(file);
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
    if (count > 0 && std::wstring(arguments[0]) == L"throw")
    {
        throw std::runtime_error("not caught");
    }
    RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    return 0;
}
}  // namespace
}  // namespace windows_check
