// Checks whether Windows behaves on this PC as the product relies on it. Changes nothing: what it makes for itself (one
// temporary folder, one volatile registry key) is removed at the end.
//
//   TavikWindowsCheck.exe [--json FILE] [--only ID-or-GROUP]... [--limit SECONDS]
//
// Exit code: 0 nothing differs, 1 something differs, 2 the checks could not be made, 3 something could not be removed.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <iterator>
#include <string>
#include <vector>

#include "base/library.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
#include "windows_check/report.h"
#include "windows_check/runner.h"
#include "windows_check/words.h"

namespace
{
using namespace windows_check;

constexpr int kDiffers = 1;
constexpr int kNotMade = 2;
constexpr int kLeftBehind = 3;

void Print(const std::string& text)
{
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

// On Ctrl+C and a closed console: removes what was made and restores the console.
BOOL WINAPI RemoveAndEnd(DWORD)
{
    RemoveOwnThings();
    GiveConsoleBack();
    return FALSE;
}

bool IsElevated()
{
    const std::vector<BYTE> elevation = TokenInformation(TokenElevation);
    return !elevation.empty() && reinterpret_cast<const TOKEN_ELEVATION*>(elevation.data())->TokenIsElevated != 0;
}

bool HasVisibleDesktop()
{
    USEROBJECTFLAGS flags = {};
    return GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof(flags), nullptr) != 0 &&
           (flags.dwFlags & WSF_VISIBLE) != 0;
}

void DescribePc()
{
    Pc& pc = ThisPc();
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    pc.program = program;
    const HMODULE system = GetModuleHandleW(L"ntdll.dll");
    if (auto* const version = repair::LookUpFunction<LONG(WINAPI*)(OSVERSIONINFOW*)>(system, "RtlGetVersion"))
    {
        OSVERSIONINFOW found = {};
        found.dwOSVersionInfoSize = sizeof(found);
        version(&found);
        pc.version =
            Number(found.dwMajorVersion) + L"." + Number(found.dwMinorVersion) + L"." + Number(found.dwBuildNumber);
    }
    if (auto* const wine = repair::LookUpFunction<const char*(CDECL*)()>(system, "wine_get_version"))
    {
        pc.wine = wine();
    }
    ProcessIdToSessionId(GetCurrentProcessId(), &pc.session);
    pc.isElevated = IsElevated();
    pc.isInteractive = HasVisibleDesktop();
}

std::string Opening()
{
    const Pc& pc = ThisPc();
    const std::wstring system =
        L"Windows " + pc.version + (pc.wine.empty() ? L"" : L" under Wine " + Widened(pc.wine)) + L", session " +
        Number(pc.session) + (pc.isElevated ? L", as administrator" : L", not as administrator");
    return Utf8(system + L"\n" +
                (pc.isElevated ? L"" : L"Some facts need an administrator and are skipped; they say so.\n") + L"\n");
}

bool WriteJson(const std::wstring& path, const std::string& json)
{
    FILE* const file = _wfopen(path.c_str(), L"wb");
    if (file == nullptr)
    {
        return false;
    }
    const bool isWritten = std::fwrite(json.data(), 1, json.size(), file) == json.size();
    return std::fclose(file) == 0 && isWritten;
}

struct Options
{
    std::wstring jsonPath;
    std::vector<std::wstring> only;
    DWORD longestMs = INFINITE;
};

int RunAll(const Options& options)
{
    DescribePc();
    SetConsoleCtrlHandler(RemoveAndEnd, TRUE);
    if (!MakeOwnThings())
    {
        RemoveOwnThings();
        Print("The temporary folder or the volatile registry key of this program cannot be made.\n");
        return kNotMade;
    }
    Print(Opening());
    std::wstring complaint;
    const std::vector<Finding> findings = RunChecks(options.only, options.longestMs, complaint);
    const bool isClean = RemoveOwnThings();
    if (findings.empty())
    {
        Print(Utf8(complaint.empty() ? L"There is no such fact.\n" : complaint));
        return kNotMade;
    }
    const int different = Count(findings, Verdict::kDiffers);
    Print(Table(findings));
    Print("\n" + std::to_string(Count(findings, Verdict::kOk)) + " ok, " + std::to_string(different) + " differ, " +
          std::to_string(Count(findings, Verdict::kNotApplicable)) + " not applicable\n");
    if (!options.jsonPath.empty() && !WriteJson(options.jsonPath, Json(findings)))
    {
        Print(Utf8(options.jsonPath + L" cannot be written.\n"));
        return kNotMade;
    }
    if (!isClean)
    {
        Print(Utf8(L"This could not be removed: " + ThisPc().folder + L" or the key HKEY_CURRENT_USER\\" +
                   ThisPc().key + L"\n"));
        return kLeftBehind;
    }
    return different == 0 ? 0 : kDiffers;
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    ThisPc().modulesFirst = LoadedModules();  // before any other DLL is loaded
    if (count >= 3 && std::wstring(arguments[1]) == L"--probe")
    {
        for (const Probe& probe : AllProbes())
        {
            if (std::wstring_view(arguments[2]) == probe.name)
            {
                return probe.run(count - 3, arguments + 3);
            }
        }
        return kNotMade;
    }
    // As the tool does first of all.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    ThisPc().modulesThen = LoadedModules();

    Options options;
    for (int i = 1; i < count; ++i)
    {
        const std::wstring argument = arguments[i];
        if (argument == L"--json" && i + 1 < count)
        {
            options.jsonPath = arguments[++i];
        }
        else if (argument == L"--only" && i + 1 < count)
        {
            options.only.emplace_back(arguments[++i]);
        }
        else if (argument == L"--limit" && i + 1 < count)
        {
            options.longestMs = 1000 * std::wcstoul(arguments[++i], nullptr, 10);
        }
        else
        {
            Print("usage: TavikWindowsCheck.exe [--json FILE] [--only ID-or-GROUP]... [--limit SECONDS]\n");
            return kNotMade;
        }
    }
    TakeConsole();
    const int result = RunAll(options);
    GiveConsoleBack();
    // Threads of checks that did not come back must not delay the end.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(result));
    return result;
}
