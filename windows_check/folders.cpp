// Names, codes and spellings of files and folders; all inside the folder of this run.
#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "base/files.h"
#include "base/log.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::wstring Attributes(const std::wstring& path)
{
    return Code(GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES);
}

std::wstring Search(const std::wstring& pattern)
{
    WIN32_FIND_DATAW data = {};
    const HANDLE search = FindFirstFileW(pattern.c_str(), &data);
    const std::wstring code = Code(search != INVALID_HANDLE_VALUE);
    FindClose(search);
    return code;
}

// The answer of one of the tool's own functions, or the code of its exception.
template <typename Ask, typename... Paths>
std::wstring Product(Ask ask, const Paths&... paths)
{
    try
    {
        return YesNo(ask(paths...));
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        return L"error " + Number(error.code().value());
    }
}

// A folder with the file "plain" in it.
std::wstring FolderWithFile()
{
    const std::wstring folder = MakeFolder(L"codes");
    WriteBytes(folder + L"\\plain", "x");
    return folder;
}

FACT(folders, create_codes)
{
    const std::wstring folder = FolderWithFile();
    std::vector<std::wstring> seen;
    for (const wchar_t* path : {L"", L"\\plain", L"\\none\\x", L"\\plain\\x", L"\\a<b"})
    {
        seen.push_back(Code(CreateDirectoryW((folder + path).c_str(), nullptr) != 0));
    }
    return Saw(Joined(seen));
}

FACT(folders, delete_codes)
{
    const std::wstring folder = FolderWithFile();
    const std::wstring file = folder + L"\\plain";
    std::wstring seen = Code(DeleteFileW((folder + L"\\missing").c_str()) != 0);
    seen += L" " + Code(DeleteFileW((folder + L"\\missing\\x").c_str()) != 0);
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    seen += L" " + Code(DeleteFileW(file.c_str()) != 0);
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    const repair::FileHandle held = Hold(file, GENERIC_READ, 0);
    seen += L" " + Code(DeleteFileW(file.c_str()) != 0);
    seen += L" " + Code(DeleteFileW(folder.c_str()) != 0);
    return Saw(seen);
}

FACT(folders, remove_codes)
{
    const std::wstring folder = FolderWithFile();
    std::vector<std::wstring> seen;
    for (const wchar_t* path : {L"", L"\\plain", L"\\missing"})
    {
        seen.push_back(Code(RemoveDirectoryW((folder + path).c_str()) != 0));
    }
    return Saw(Joined(seen));
}

FACT(folders, attribute_codes)
{
    const std::wstring folder = FolderWithFile();
    return Saw(Joined({Attributes(folder + L"\\missing"), Attributes(folder + L"\\missing\\x"),
                       Attributes(folder + L"\\plain\\x"), Attributes(folder + L"\\a<b")}));
}

FACT(folders, exists_odd_names)
{
    const std::wstring folder = FolderWithFile();
    std::vector<std::wstring> seen;
    for (const wchar_t* path : {L"\\missing", L"\\missing\\x", L"\\plain\\x", L"\\a<b", L"\\a*b", L"\\plain\\"})
    {
        seen.push_back(Product(repair::Exists, folder + path));
    }
    seen.push_back(Product(repair::Exists, std::wstring()));
    return Saw(Joined(seen));
}

FACT(folders, exists_spellings)
{
    const std::wstring folder = MakeFolder(L"codes");
    WriteBytes(folder + L"\\Plain.txt", "x");
    std::vector<std::wstring> seen;
    for (const wchar_t* name : {L"\\PLAIN.TXT", L"/plain.txt", L"\\.\\Plain.txt", L"\\Plain.txt.", L"\\Plain.txt "})
    {
        seen.push_back(Product(repair::Exists, folder + name));
    }
    return Saw(Joined(seen));
}

// Windows keeps these open for itself; their attributes cannot be read.
FACT(folders, exists_system_file)
{
    for (const wchar_t* name : {L"pagefile.sys", L"swapfile.sys", L"hiberfil.sys"})
    {
        const std::wstring path = repair::GetLogFolder().substr(0, 3) + name;
        if (Search(path) == L"ok")
        {
            return Saw(Product(repair::Exists, path), std::wstring(name) + L", attributes: " + Attributes(path));
        }
    }
    throw NotApplicable{L"the system drive has no page file"};
}

FACT(folders, search_codes)
{
    const std::wstring folder = FolderWithFile();
    return Saw(
        Joined({Search(folder + L"\\missing\\*"), Search(folder + L"\\plain\\*"), Search(folder + L"\\a<b\\*")}));
}

// The names that a folder lists, and the code that ends the list.
std::vector<std::wstring> Names(const std::wstring& folder, DWORD& end)
{
    WIN32_FIND_DATAW data = {};
    std::vector<std::wstring> names;
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &data);
    for (BOOL isFound = search != INVALID_HANDLE_VALUE; isFound != FALSE; isFound = FindNextFileW(search, &data))
    {
        names.emplace_back(data.cFileName);
    }
    end = GetLastError();
    FindClose(search);
    return names;
}

FACT(folders, search_begins)
{
    DWORD end = 0;
    const std::wstring names = Joined(Names(MakeFolder(L"empty"), end));
    return Saw(names + L", then " + Number(end));
}

FACT(folders, order)
{
    const std::wstring folder = MakeFolder(L"order");
    for (const wchar_t* name : {L"b3", L"B1", L"c", L"b20", L"A"})
    {
        CreateDirectoryW((folder + L"\\" + name).c_str(), nullptr);
    }
    DWORD end = 0;
    std::vector<std::wstring> names = Names(folder, end);
    std::erase_if(names, [](const std::wstring& name) { return name.starts_with(L"."); });
    wchar_t system[MAX_PATH] = {};
    GetVolumeInformationW(ThisPc().folder.substr(0, 3).c_str(), nullptr, 0, nullptr, nullptr, nullptr, system,
                          MAX_PATH);
    return Saw(Joined(names), system);
}

FACT(folders, same_by_spelling)
{
    const std::wstring folder = MakeFolder(L"Spelling");
    std::wstring slashes = folder;
    std::replace(slashes.begin() + 3, slashes.end(), L'\\', L'/');
    wchar_t shortName[MAX_PATH] = {};
    GetShortPathNameW(folder.c_str(), shortName, MAX_PATH);
    std::vector<std::wstring> seen;
    for (const std::wstring& other : {Lower(folder), slashes, folder + L"\\", folder + L"\\.",
                                      folder + L"\\..\\Spelling", L"\\\\?\\" + folder, std::wstring(shortName)})
    {
        seen.push_back(Product(repair::SameObject, folder, other));
    }
    return Saw(Joined(seen));
}

FACT(folders, same_of_others)
{
    const std::wstring folder = MakeFolder(L"Spelling");
    return Saw(Joined({Product(repair::SameObject, folder, ThisPc().folder),
                       Product(repair::SameObject, folder, folder + L"\\missing"),
                       Product(repair::SameObject, folder, std::wstring())}));
}

FACT(folders, long_path)
{
    const std::wstring folder = MakeFolder(L"long");
    const std::wstring deep = folder + L"\\" + std::wstring(120, L'x') + L"\\" + std::wstring(120, L'y');
    const bool isMade = CreateDirectoryW((L"\\\\?\\" + deep.substr(0, deep.rfind(L'\\'))).c_str(), nullptr) != 0 &&
                        CreateDirectoryW((L"\\\\?\\" + deep).c_str(), nullptr) != 0;
    if (!isMade)
    {
        return Saw(L"the folder could not be made: " + Number(GetLastError()));
    }
    return Saw(L"made: " + Code(CreateDirectoryW((deep + L"\\z").c_str(), nullptr) != 0) + L", attributes: " +
                   Attributes(deep),
               Number(deep.size()) + L" characters");
}

FACT(folders, temporary)
{
    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = GetTempPathW(MAX_PATH + 1, path);
    const std::wstring folder = path;
    const bool isWhole = length == folder.size() && folder.size() > 3 && folder.back() == L'\\';
    return Saw(isWhole ? L"with a backslash at the end" : Quoted(folder) + L" " + Number(length));
}

FACT(folders, temporary_of_environment)
{
    wchar_t before[MAX_PATH + 1] = {};
    GetEnvironmentVariableW(L"TMP", before, MAX_PATH + 1);
    const std::wstring folder = MakeFolder(L"temporary");
    SetEnvironmentVariableW(L"TMP", folder.c_str());  // of this process only
    wchar_t path[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, path);
    SetEnvironmentVariableW(L"TMP", before[0] == L'\0' ? nullptr : before);
    return Saw(path == folder + L"\\" ? L"TMP" : L"elsewhere", path);
}

FACT(folders, windows)
{
    wchar_t own[MAX_PATH] = {};
    wchar_t shared[MAX_PATH] = {};
    GetWindowsDirectoryW(own, MAX_PATH);
    GetSystemWindowsDirectoryW(shared, MAX_PATH);
    const std::wstring folder = own;
    const bool isPlain = folder.size() > 3 && folder[1] == L':' && folder[2] == L'\\';
    return Saw((isPlain ? L"drive and folder" : Quoted(folder)) +
                   std::wstring(folder.substr(0, 1) == std::wstring(shared).substr(0, 1) ? L", on the system's drive"
                                                                                         : L", on another drive"),
               folder);
}

FACT(folders, program_files)
{
    wchar_t folder[MAX_PATH] = {};
    const BOOL isKnown = SHGetSpecialFolderPathW(nullptr, folder, CSIDL_PROGRAM_FILES, FALSE);
    wchar_t variable[MAX_PATH] = {};
    GetEnvironmentVariableW(L"ProgramW6432", variable, MAX_PATH);
    return Saw(isKnown != FALSE && std::wstring(folder) == variable ? L"the 64-bit one"
                                                                    : Quoted(folder) + L" " + Quoted(variable));
}

FACT(folders, log_below_program_files)
{
    const std::wstring folder = repair::GetLogFolder();
    wchar_t programs[MAX_PATH] = {};
    SHGetSpecialFolderPathW(nullptr, programs, CSIDL_PROGRAM_FILES, FALSE);
    const std::wstring beside = std::wstring(programs) + L"\\";
    return Saw(YesNo(folder.compare(0, beside.size(), beside) == 0), folder);
}
}  // namespace
}  // namespace windows_check
