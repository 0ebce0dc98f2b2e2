// Checks whether Windows behaves on this PC as the product relies on it. Changes nothing: what it makes for itself (one
// temporary folder, one volatile registry key) is removed at the end.
//
//   TavikWindowsCheck.exe [--json FILE] [--only ID-or-GROUP]... [--limit SECONDS]
//
// Exit code: 0 nothing differs, 1 something differs, 2 the checks could not be made, 3 something could not be removed.
#include <windows.h>

#include <cwchar>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/library.h"
#include "windows_check/check.h"
#include "windows_check/findings.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
#include "windows_check/words.h"

namespace
{
using namespace windows_check;

constexpr int kDiffers = 1;
constexpr int kLeftBehind = 3;

// On Ctrl+C and a closed console.
BOOL WINAPI RemoveAndEnd(DWORD)
{
    RemoveOwnThings();
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

// The delay-loaded libraries of the tool, and of this program, that are in the process.
std::wstring LoadedLibraries()
{
    std::vector<std::wstring> loaded;
    for (const wchar_t* name : {L"msi.dll", L"setupapi.dll", L"wininet.dll", L"wtsapi32.dll"})
    {
        if (GetModuleHandleW(name) != nullptr)
        {
            loaded.emplace_back(name);
        }
    }
    return Joined(loaded);
}

void DescribePc()
{
    Pc& pc = ThisPc();
    pc.program = Filled([](wchar_t* path, DWORD size) { GetModuleFileNameW(nullptr, path, size); });
    const HMODULE system = GetModuleHandleW(L"ntdll.dll");
    if (auto* const version = repair::LookUpFunction<LONG(WINAPI*)(OSVERSIONINFOW*)>(system, "RtlGetVersion"))
    {
        OSVERSIONINFOW found = {};
        found.dwOSVersionInfoSize = sizeof(found);
        version(&found);
        pc.version =
            Joined({Number(found.dwMajorVersion), Number(found.dwMinorVersion), Number(found.dwBuildNumber)}, L".");
    }
    if (auto* const wine = repair::LookUpFunction<const char*(CDECL*)()>(system, "wine_get_version"))
    {
        pc.wine = wine();
    }
    ProcessIdToSessionId(GetCurrentProcessId(), &pc.session);
    pc.isElevated = IsElevated();
    pc.isInteractive = HasVisibleDesktop();
}

std::wstring Opening()
{
    const Pc& pc = ThisPc();
    return L"Windows " + pc.version + (pc.wine.empty() ? L"" : L" under Wine " + Widened(pc.wine)) + L", session " +
           Number(pc.session) +
           (pc.isElevated
                ? L", as administrator\n\n"
                : L", not as administrator\nSome facts need an administrator and are skipped; they say so.\n\n");
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
        Print(L"The temporary folder or the volatile registry key of this program cannot be made.\n");
        return kNotMade;
    }
    Print(Opening());
    const std::vector<Finding> findings = RunChecks(options.only, options.longestMs);
    const bool isClean = RemoveOwnThings();
    if (findings.empty())
    {
        Print(L"There is no such fact.\n");
        return kNotMade;
    }
    const int different = Count(findings, Verdict::kDiffers);
    Print(Table(findings) + L"\n" + Number(Count(findings, Verdict::kOk)) + L" ok, " + Number(different) +
          L" differ, " + Number(Count(findings, Verdict::kNotApplicable)) + L" not applicable\n");
    std::ofstream json(std::filesystem::path(options.jsonPath), std::ios::binary);
    if (!options.jsonPath.empty() && !(json << Json(findings)).flush())
    {
        Print(options.jsonPath + L" cannot be written.\n");
        return kNotMade;
    }
    if (!isClean)
    {
        Print(L"This could not be removed: " + ThisPc().folder + L" or the key HKEY_CURRENT_USER\\" + ThisPc().key +
              L"\n");
        return kLeftBehind;
    }
    return different == 0 ? 0 : kDiffers;
}

int RunProbe(const std::wstring& name, const std::wstring& argument)
{
    for (const Probe& probe : AllProbes())
    {
        if (name == probe.name)
        {
            return probe.run(argument);
        }
    }
    return kNotMade;
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    if (count >= 3 && std::wstring(arguments[1]) == L"--probe")
    {
        return RunProbe(arguments[2], count > 3 ? arguments[3] : L"");
    }
    // As the tool does first of all.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    ThisPc().delayedLibraries = LoadedLibraries();

    Options options;
    for (int i = 1; i < count; i += 2)
    {
        const std::wstring option = arguments[i];
        const std::wstring value = i + 1 < count ? arguments[i + 1] : L"";
        if (option == L"--json" && !value.empty())
        {
            options.jsonPath = value;
        }
        else if (option == L"--only" && !value.empty())
        {
            options.only.push_back(value);
        }
        else if (option == L"--limit" && !value.empty())
        {
            options.longestMs = 1000 * std::wcstoul(value.c_str(), nullptr, 10);
        }
        else
        {
            Print(L"usage: TavikWindowsCheck.exe [--json FILE] [--only ID-or-GROUP]... [--limit SECONDS]\n");
            return kNotMade;
        }
    }
    const int result = RunAll(options);
    // Threads of checks that did not come back must not delay the end.
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(result));
    return result;
}
