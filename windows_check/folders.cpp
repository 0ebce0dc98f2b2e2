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

std::wstring Product(bool (*ask)(const std::wstring&), const std::wstring& path)
{
    try
    {
        return YesNo(ask(path));
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        return L"error " + Number(error.code().value());
    }
}

Seen CreateCodes()
{
    const std::wstring folder = MakeFolder(L"codes");
    const std::wstring file = WriteBytes(folder + L"\\file", "x");
    std::wstring seen = Code(CreateDirectoryW(folder.c_str(), nullptr) != 0);
    seen += L" " + Code(CreateDirectoryW(file.c_str(), nullptr) != 0);
    seen += L" " + Code(CreateDirectoryW((folder + L"\\none\\x").c_str(), nullptr) != 0);
    seen += L" " + Code(CreateDirectoryW((file + L"\\x").c_str(), nullptr) != 0);
    seen += L" " + Code(CreateDirectoryW((folder + L"\\a<b").c_str(), nullptr) != 0);
    return Saw(seen);
}

Seen DeleteCodes()
{
    const std::wstring folder = MakeFolder(L"codes");
    std::wstring seen = Code(DeleteFileW((folder + L"\\missing").c_str()) != 0);
    seen += L" " + Code(DeleteFileW((folder + L"\\missing\\x").c_str()) != 0);
    const std::wstring readOnly = WriteBytes(folder + L"\\read-only", "x");
    SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY);
    seen += L" " + Code(DeleteFileW(readOnly.c_str()) != 0);
    SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_NORMAL);
    const HANDLE held = CreateFileW(readOnly.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    seen += L" " + Code(DeleteFileW(readOnly.c_str()) != 0);
    CloseHandle(held);
    seen += L" " + Code(DeleteFileW(folder.c_str()) != 0);
    return Saw(seen);
}

Seen RemoveFolderCodes()
{
    const std::wstring folder = MakeFolder(L"codes");
    const std::wstring file = WriteBytes(folder + L"\\in the way", "x");
    std::wstring seen = Code(RemoveDirectoryW(folder.c_str()) != 0);
    seen += L" " + Code(RemoveDirectoryW(file.c_str()) != 0);
    seen += L" " + Code(RemoveDirectoryW((folder + L"\\missing").c_str()) != 0);
    return Saw(seen);
}

Seen AttributeCodes()
{
    const std::wstring folder = MakeFolder(L"codes");
    const std::wstring file = WriteBytes(folder + L"\\plain", "x");
    return Saw(Attributes(folder + L"\\missing") + L" " + Attributes(folder + L"\\missing\\x") + L" " +
               Attributes(file + L"\\x") + L" " + Attributes(folder + L"\\a<b"));
}

Seen ExistsOddNames()
{
    const std::wstring folder = MakeFolder(L"codes");
    const std::wstring file = WriteBytes(folder + L"\\plain", "x");
    std::wstring seen;
    for (const std::wstring& path : {folder + L"\\missing", folder + L"\\missing\\x", file + L"\\x", folder + L"\\a<b",
                                     folder + L"\\a*b", file + L"\\", std::wstring(L"")})
    {
        seen += (seen.empty() ? L"" : L" ") + Product(repair::Exists, path);
    }
    return Saw(seen);
}

Seen ExistsOtherSpellings()
{
    const std::wstring folder = MakeFolder(L"codes");
    WriteBytes(folder + L"\\Plain.txt", "x");
    std::wstring seen;
    for (const wchar_t* name : {L"\\PLAIN.TXT", L"/plain.txt", L"\\.\\Plain.txt", L"\\Plain.txt.", L"\\Plain.txt "})
    {
        seen += (seen.empty() ? L"" : L" ") + Product(repair::Exists, folder + name);
    }
    return Saw(seen);
}

// Windows keeps these open for itself; their attributes cannot be asked for.
Seen ExistsSystemFile()
{
    for (const wchar_t* name : {L"pagefile.sys", L"swapfile.sys", L"hiberfil.sys"})
    {
        const std::wstring path = repair::GetLogFolder().substr(0, 3) + name;
        if (Search(path) == L"ok")
        {
            return Saw(Product(repair::Exists, path), std::wstring(name) + L", attributes: " + Attributes(path));
        }
    }
    return DoesNotApply(L"the system drive has no page file");
}

Seen SearchCodes()
{
    const std::wstring folder = MakeFolder(L"codes");
    const std::wstring file = WriteBytes(folder + L"\\plain", "x");
    return Saw(Search(folder + L"\\missing\\*") + L" " + Search(file + L"\\*") + L" " + Search(folder + L"\\a<b\\*"));
}

Seen SearchBegins()
{
    const std::wstring folder = MakeFolder(L"empty");
    WIN32_FIND_DATAW data = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &data);
    if (search == INVALID_HANDLE_VALUE)
    {
        return Saw(L"no list: " + Number(GetLastError()));
    }
    std::wstring seen = data.cFileName;
    while (FindNextFileW(search, &data) != 0)
    {
        seen += std::wstring(L" ") + data.cFileName;
    }
    const DWORD error = GetLastError();
    FindClose(search);
    return Saw(seen + L", then " + Number(error));
}

Seen Order()
{
    const std::wstring folder = MakeFolder(L"order");
    for (const wchar_t* name : {L"b3", L"B1", L"c", L"b20", L"A"})
    {
        CreateDirectoryW((folder + L"\\" + name).c_str(), nullptr);
    }
    WIN32_FIND_DATAW data = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &data);
    if (search == INVALID_HANDLE_VALUE)
    {
        return Saw(L"no list: " + Number(GetLastError()));
    }
    std::wstring seen;
    do
    {
        if (data.cFileName[0] != L'.')
        {
            seen += (seen.empty() ? L"" : L" ") + std::wstring(data.cFileName);
        }
    } while (FindNextFileW(search, &data) != 0);
    FindClose(search);
    wchar_t system[MAX_PATH] = {};
    GetVolumeInformationW(ThisMachine().folder.substr(0, 3).c_str(), nullptr, 0, nullptr, nullptr, nullptr, system,
                          MAX_PATH);
    return Saw(seen, system);
}

std::wstring Same(const std::wstring& first, const std::wstring& second)
{
    try
    {
        return YesNo(repair::SameObject(first, second));
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        return L"error " + Number(error.code().value());
    }
}

Seen SameBySpelling()
{
    const std::wstring folder = MakeFolder(L"Spelling");
    std::wstring upper = folder;
    CharUpperBuffW(upper.data(), static_cast<DWORD>(upper.size()));
    std::wstring slashes = folder;
    std::replace(slashes.begin() + 3, slashes.end(), L'\\', L'/');
    wchar_t shortName[MAX_PATH] = {};
    GetShortPathNameW(folder.c_str(), shortName, MAX_PATH);
    std::wstring seen;
    for (const std::wstring& other : {upper, slashes, folder + L"\\", folder + L"\\.", folder + L"\\..\\Spelling",
                                      L"\\\\?\\" + folder, std::wstring(shortName)})
    {
        seen += (seen.empty() ? L"" : L" ") + Same(folder, other);
    }
    return Saw(seen);
}

Seen SameOfOthers()
{
    const std::wstring folder = MakeFolder(L"Spelling");
    return Saw(Same(folder, ThisMachine().folder) + L" " + Same(folder, folder + L"\\missing") + L" " +
               Same(folder, L""));
}

Seen LongPath()
{
    const std::wstring folder = MakeFolder(L"long");
    const std::wstring deep = folder + L"\\" + std::wstring(120, L'x') + L"\\" + std::wstring(120, L'y');
    const bool isMade = CreateDirectoryW((L"\\\\?\\" + deep.substr(0, deep.rfind(L'\\'))).c_str(), nullptr) != 0 &&
                        CreateDirectoryW((L"\\\\?\\" + deep).c_str(), nullptr) != 0;
    if (!isMade)
    {
        return Saw(L"the folder could not be made: " + Number(GetLastError()));
    }
    return Saw(
        L"made: " + Code(CreateDirectoryW((deep + L"\\z").c_str(), nullptr) != 0) + L", looked at: " + Attributes(deep),
        Number(static_cast<long long>(deep.size())) + L" characters");
}

Seen TemporaryFolder()
{
    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = GetTempPathW(MAX_PATH + 1, path);
    const std::wstring folder = path;
    const bool isWhole = length == folder.size() && folder.size() > 3 && folder.back() == L'\\';
    return Saw(isWhole ? L"with a backslash at the end" : Quoted(folder) + L" " + Number(length));
}

Seen TemporaryFolderOfEnvironment()
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

Seen WindowsFolder()
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

Seen ProgramFiles()
{
    wchar_t folder[MAX_PATH] = {};
    const BOOL isKnown = SHGetSpecialFolderPathW(nullptr, folder, CSIDL_PROGRAM_FILES, FALSE);
    wchar_t variable[MAX_PATH] = {};
    GetEnvironmentVariableW(L"ProgramW6432", variable, MAX_PATH);
    return Saw(isKnown != FALSE && std::wstring(folder) == variable ? L"the 64-bit one"
                                                                    : Quoted(folder) + L" " + Quoted(variable));
}

Seen LogFolder()
{
    const std::wstring folder = repair::GetLogFolder();
    wchar_t programs[MAX_PATH] = {};
    SHGetSpecialFolderPathW(nullptr, programs, CSIDL_PROGRAM_FILES, FALSE);
    const std::wstring beside = std::wstring(programs) + L"\\";
    return Saw(YesNo(folder.compare(0, beside.size(), beside) == 0), folder);
}
}  // namespace

std::vector<Check> FolderChecks()
{
    return {
        {"folders.create_codes", CreateCodes},
        {"folders.delete_codes", DeleteCodes},
        {"folders.remove_codes", RemoveFolderCodes},
        {"folders.attribute_codes", AttributeCodes},
        {"folders.exists_odd_names", ExistsOddNames},
        {"folders.exists_spellings", ExistsOtherSpellings},
        {"folders.exists_system_file", ExistsSystemFile},
        {"folders.search_codes", SearchCodes},
        {"folders.search_begins", SearchBegins},
        {"folders.order", Order},
        {"folders.same_by_spelling", SameBySpelling},
        {"folders.same_of_others", SameOfOthers},
        {"folders.long_path", LongPath},
        {"folders.temporary", TemporaryFolder},
        {"folders.temporary_of_environment", TemporaryFolderOfEnvironment},
        {"folders.windows", WindowsFolder},
        {"folders.program_files", ProgramFiles},
        {"folders.log_below_program_files", LogFolder},
    };
}
}  // namespace windows_check
