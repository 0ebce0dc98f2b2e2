// Which DLLs get into the process, and from where.
#include <windows.h>
#include <wtsapi32.h>

#include <filesystem>
#include <set>

#include "base/registry.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::set<std::wstring> KnownDlls()
{
    constexpr wchar_t kPath[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\KnownDLLs";
    HKEY opened = nullptr;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, kPath, 0, KEY_READ, &opened);
    const repair::RegistryKey key(opened);
    std::set<std::wstring> names;
    wchar_t name[256] = {};
    DWORD length = 256;
    for (DWORD index = 0; RegEnumValueW(opened, index, name, &length, nullptr, nullptr, nullptr, nullptr) == 0; ++index)
    {
        names.insert(Lower(repair::ReadRegistryString(key, L"", name)));
        length = 256;
    }
    return names;
}

FACT(libraries, imports_are_known)
{
    const std::set<std::wstring> known = KnownDlls();
    std::wstring missing;
    // tools/exe_gate.py has the same list.
    for (const wchar_t* name :
         {L"advapi32.dll", L"gdi32.dll", L"kernel32.dll", L"msvcrt.dll", L"shell32.dll", L"user32.dll"})
    {
        missing += known.count(name) == 0 ? L" " + std::wstring(name) : L"";
    }
    return {missing.empty() ? L"all" : L"not" + missing, Joined({known.begin(), known.end()})};
}

SHORT_FACT(libraries, delayed_at_start, ThisPc().delayedLibraries.empty() ? L"none" : ThisPc().delayedLibraries)

// A copy of the program in a folder of its own, with a copy of wtsapi32.dll beside it.
Seen PlaceOfLibrary(const std::wstring& how)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    const std::wstring folder = MakeFolder(L"planted-" + how);
    const std::wstring program = folder + L"\\TavikWindowsCheckCopy.exe";
    CopyFileW(ThisPc().program.c_str(), program.c_str(), FALSE);
    CopyFileW((SystemFolder() + L"\\wtsapi32.dll").c_str(), (folder + L"\\wtsapi32.dll").c_str(), FALSE);
    const Answer answer = Ask(L"library " + how, program, folder.c_str());
    return {answer[L"place"], answer[L"path"]};
}

SHORT_FACT(libraries, planted_copy, PlaceOfLibrary(L"restricted"))
SHORT_FACT(libraries, planted_copy_control, PlaceOfLibrary(L"free"))

std::wstring PathOf(const wchar_t* library)
{
    return Lower(Filled([&](wchar_t* path, DWORD size) { GetModuleFileNameW(GetModuleHandleW(library), path, size); }));
}

PROBE(library)
{
    if (argument == L"restricted")
    {
        SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    }
    if (GetModuleHandleW(L"wtsapi32.dll") != nullptr)
    {
        Tell(L"place", L"loaded before the first call");
        return 0;
    }
    WTSFreeMemory(nullptr);  // the first call loads the DLL
    const std::wstring path = PathOf(L"wtsapi32.dll");
    const std::wstring folder = std::filesystem::path(path).parent_path().wstring();
    const bool isOurs = folder == std::filesystem::path(PathOf(nullptr)).parent_path().wstring();
    Tell(L"path", path);
    Tell(L"place", isOurs ? L"program's folder" : folder == Lower(SystemFolder()) ? L"system folder" : folder);
    return 0;
}

// The functions that a library of the system's folder lacks.
std::wstring Missing(const wchar_t* library, const std::vector<const char*>& names)
{
    const HMODULE module = LoadLibraryExW(library, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    std::wstring missing;
    for (const char* name : names)
    {
        missing += GetProcAddress(module, name) == nullptr ? L" " + Widened(name) : L"";
    }
    return missing;
}

Seen Functions(const std::wstring& missing)
{
    return missing.empty() ? L"all" : L"not" + missing;
}

SHORT_FACT(libraries, runtime_functions,
           Functions(Missing(L"combase.dll",
                             {"RoGetActivationFactory", "CoIncrementMTAUsage", "WindowsCreateString",
                              "WindowsDuplicateString", "WindowsDeleteString", "WindowsGetStringRawBuffer"}) +
                     Missing(L"oleaut32.dll", {"GetErrorInfo", "SysFreeString", "SysStringLen"})))

SHORT_FACT(libraries, dpi_functions,
           Functions(Missing(L"user32.dll", {"SetThreadDpiAwarenessContext", "SetThreadDpiHostingBehavior"})))
}  // namespace
}  // namespace windows_check
