// Which DLLs get into the process, and from where.
#include <windows.h>
#include <psapi.h>
#include <winternl.h>
#include <wtsapi32.h>

#include <algorithm>
#include <set>

#include "base/library.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
#include "windows_check/words.h"

namespace windows_check
{
std::vector<std::wstring> LoadedModules()
{
    HMODULE modules[512] = {};
    DWORD bytes = 0;
    std::vector<std::wstring> paths;
    if (K32EnumProcessModules(GetCurrentProcess(), modules, sizeof(modules), &bytes) == 0)
    {
        return paths;
    }
    for (size_t i = 0; i < std::min<size_t>(bytes / sizeof(HMODULE), std::size(modules)); ++i)
    {
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(modules[i], path, MAX_PATH);
        if (modules[i] != GetModuleHandleW(nullptr))
        {
            paths.emplace_back(path);
        }
    }
    return paths;
}

namespace
{
// What the tool imports at its start, and what it loads at the first call; tools/exe_gate.py has the same lists.
constexpr const wchar_t* kImported[] = {L"advapi32.dll", L"gdi32.dll",   L"kernel32.dll",
                                        L"msvcrt.dll",   L"shell32.dll", L"user32.dll"};
constexpr const wchar_t* kDelayed[] = {L"msi.dll", L"setupapi.dll", L"wininet.dll", L"wtsapi32.dll"};
constexpr wchar_t kKnownKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\KnownDLLs";

std::wstring FolderOf(const std::wstring& path)
{
    return Lower(path.substr(0, path.rfind(L'\\')));
}

std::wstring NameOfFile(const std::wstring& path)
{
    return Lower(path.substr(path.rfind(L'\\') + 1));
}

std::wstring SystemFolder()
{
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    return Lower(folder);
}

// "system folder", "program's folder" or the folder itself.
std::wstring Place(const std::wstring& path, const std::wstring& program)
{
    const std::wstring folder = FolderOf(path);
    if (folder == SystemFolder())
    {
        return L"system folder";
    }
    return folder == FolderOf(program) ? L"program's folder" : folder;
}

std::wstring Listed(const std::set<std::wstring>& names, const wchar_t* none = L"none")
{
    return names.empty() ? none : Joined({names.begin(), names.end()});
}

std::set<std::wstring> KnownByRegistry()
{
    std::set<std::wstring> names;
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKnownKey, 0, KEY_READ, &key) != ERROR_SUCCESS)
    {
        return names;
    }
    for (DWORD index = 0;; ++index)
    {
        wchar_t name[256] = {};
        wchar_t data[256] = {};
        DWORD nameLength = 256;
        DWORD dataBytes = sizeof(data) - sizeof(wchar_t);
        DWORD type = 0;
        const LSTATUS status =
            RegEnumValueW(key, index, name, &nameLength, nullptr, &type, reinterpret_cast<BYTE*>(data), &dataBytes);
        if (status != ERROR_SUCCESS)
        {
            break;
        }
        if (type == REG_SZ)
        {
            names.insert(Lower(data));
        }
    }
    RegCloseKey(key);
    return names;
}

// The loader's own list: one section object for each DLL, those that the registry's need among them.
std::set<std::wstring> KnownToLoader()
{
    using OpenDirectory = LONG(NTAPI*)(HANDLE*, DWORD, OBJECT_ATTRIBUTES*);
    using QueryDirectory = LONG(NTAPI*)(HANDLE, void*, ULONG, BOOLEAN, BOOLEAN, ULONG*, ULONG*);
    constexpr DWORD kDirectoryQuery = 1;
    struct Entry
    {
        UNICODE_STRING name;
        UNICODE_STRING type;
    };

    std::set<std::wstring> names;
    const HMODULE system = GetModuleHandleW(L"ntdll.dll");
    auto* const open = repair::LookUpFunction<OpenDirectory>(system, "NtOpenDirectoryObject");
    auto* const query = repair::LookUpFunction<QueryDirectory>(system, "NtQueryDirectoryObject");
    if (open == nullptr || query == nullptr)
    {
        return names;
    }
    wchar_t path[] = L"\\KnownDlls";
    UNICODE_STRING name = {sizeof(path) - sizeof(wchar_t), sizeof(path), path};
    OBJECT_ATTRIBUTES attributes = {};
    attributes.Length = sizeof(attributes);
    attributes.ObjectName = &name;
    HANDLE directory = nullptr;
    if (open(&directory, kDirectoryQuery, &attributes) < 0)
    {
        return names;
    }
    std::vector<BYTE> buffer(4096);
    ULONG context = 0;
    for (BOOLEAN isFirst = TRUE;
         query(directory, buffer.data(), static_cast<ULONG>(buffer.size()), TRUE, isFirst, &context, nullptr) >= 0;
         isFirst = FALSE)
    {
        const Entry& entry = *reinterpret_cast<const Entry*>(buffer.data());
        names.insert(Lower(std::wstring(entry.name.Buffer, entry.name.Length / sizeof(wchar_t))));
    }
    CloseHandle(directory);
    return names;
}

Seen KnownDlls(const std::set<std::wstring>& known)
{
    if (known.empty())
    {
        return Saw(L"there is no list");
    }
    std::set<std::wstring> missing;
    for (const wchar_t* name : kImported)
    {
        if (known.count(name) == 0)
        {
            missing.insert(name);
        }
    }
    return Saw(missing.empty() ? L"all" : L"not " + Listed(missing), Listed(known));
}

SHORT_FACT(libraries, imports_are_known, KnownDlls(KnownToLoader()))
SHORT_FACT(libraries, imports_in_registry, KnownDlls(KnownByRegistry()))

Seen DelayedAreAbsent(const std::vector<std::wstring>& modules)
{
    std::set<std::wstring> present;
    std::wstring all;
    for (const std::wstring& path : modules)
    {
        all += NameOfFile(path) + L" ";
        for (const wchar_t* name : kDelayed)
        {
            if (NameOfFile(path) == name)
            {
                present.insert(name);
            }
        }
    }
    return Saw(Listed(present), all);
}

SHORT_FACT(libraries, delayed_at_start, DelayedAreAbsent(ThisPc().modulesFirst))
SHORT_FACT(libraries, delayed_after_restriction, DelayedAreAbsent(ThisPc().modulesThen))

// Virus scanners load DLLs of their own from other folders; these are listed in the detail only.
FACT(libraries, own_folder_at_start)
{
    std::set<std::wstring> own;
    std::set<std::wstring> elsewhere;
    for (const std::wstring& path : ThisPc().modulesFirst)
    {
        const std::wstring place = Place(path, ThisPc().program);
        if (place == L"program's folder")
        {
            own.insert(NameOfFile(path));
        }
        else if (place != L"system folder")
        {
            elsewhere.insert(Lower(path));
        }
    }
    return Saw(Listed(own), L"from other folders: " + Listed(elsewhere));
}

// A copy of the program in a folder of its own, with a copy of wtsapi32.dll beside it.
Answer AskCopy(const wchar_t* how)
{
    const std::wstring folder = MakeFolder(std::wstring(L"planted-") + how);
    const std::wstring program = folder + L"\\TavikWindowsCheckCopy.exe";
    wchar_t system[MAX_PATH] = {};
    GetSystemDirectoryW(system, MAX_PATH);
    if (CopyFileW(ThisPc().program.c_str(), program.c_str(), FALSE) == 0 ||
        CopyFileW((std::wstring(system) + L"\\wtsapi32.dll").c_str(), (folder + L"\\wtsapi32.dll").c_str(), FALSE) == 0)
    {
        Answer none;
        none.exitCode = GetLastError();
        return none;
    }
    return Ask(program, L"library", how, folder);
}

Seen PlaceOfLibrary(const wchar_t* how)
{
    Need(ThisPc().isFolderOurs, kFolderIsOpen);
    const Answer answer = AskCopy(how);
    return Saw(answer[L"place"], answer[L"path"]);
}

SHORT_FACT(libraries, planted_copy, PlaceOfLibrary(L"restricted"))
SHORT_FACT(libraries, planted_copy_control, PlaceOfLibrary(L"free"))

FACT(libraries, restriction)
{
    // Once more in this process, which has done it already.
    return Saw(Code(SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32) != 0));
}

std::wstring Missing(const wchar_t* library, const std::vector<const char*>& names)
{
    const HMODULE module = LoadLibraryExW(library, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    std::vector<std::wstring> missing;
    for (const char* name : names)
    {
        if (GetProcAddress(module, name) == nullptr)
        {
            missing.push_back(Widened(name));
        }
    }
    return missing.empty() ? L"all" : L"not " + Joined(missing);
}

SHORT_FACT(libraries, combase_functions,
           Saw(Missing(L"combase.dll", {"RoGetActivationFactory", "CoIncrementMTAUsage", "WindowsCreateString",
                                        "WindowsDuplicateString", "WindowsDeleteString", "WindowsGetStringRawBuffer"})))

SHORT_FACT(libraries, automation_functions,
           Saw(Missing(L"oleaut32.dll", {"GetErrorInfo", "SysFreeString", "SysStringLen"})))

SHORT_FACT(libraries, dpi_functions,
           Saw(Missing(L"user32.dll", {"SetThreadDpiAwarenessContext", "SetThreadDpiHostingBehavior"})))

FACT(libraries, delayed_functions)
{
    std::wstring seen;
    const std::pair<const wchar_t*, std::vector<const char*>> wanted[] = {
        {L"setupapi.dll",
         {"SetupGetInfDriverStoreLocationW", "SetupDiGetDevicePropertyW", "SetupDiBuildDriverInfoList"}},
        {L"msi.dll", {"MsiEnumRelatedProductsW", "MsiGetProductInfoW", "MsiInstallProductW", "MsiSetInternalUI"}},
        {L"wininet.dll", {"InternetCrackUrlW", "HttpSendRequestW", "InternetGetLastResponseInfoW"}},
        {L"wtsapi32.dll", {"WTSQuerySessionInformationW", "WTSFreeMemory"}},
    };
    for (const auto& [library, names] : wanted)
    {
        const std::wstring missing = Missing(library, names);
        seen += missing == L"all" ? L"" : std::wstring(library) + L": " + missing + L" ";
    }
    return Saw(seen.empty() ? L"all" : seen);
}
PROBE(library)
{
    if (count > 0 && std::wstring(arguments[0]) == L"restricted")
    {
        SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    }
    if (GetModuleHandleW(L"wtsapi32.dll") != nullptr)
    {
        Tell(L"place", L"loaded before the first call");
        return 0;
    }
    WTSFreeMemory(nullptr);  // the first call loads the DLL
    wchar_t path[MAX_PATH] = {};
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(GetModuleHandleW(L"wtsapi32.dll"), path, MAX_PATH);
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    Tell(L"path", path);
    Tell(L"place", Place(path, program));
    return 0;
}
}  // namespace
}  // namespace windows_check
