// Names, codes and spellings of files and folders; all inside the folder of this run.
#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <cstring>
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
std::wstring Delete(const std::wstring& path)
{
    return Code(DeleteFileW(path.c_str()) != 0);
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

// Asks about names in a folder with the file "plain" in it.
template <typename Ask>
std::wstring OfEachName(const std::vector<std::wstring>& names, Ask ask)
{
    const std::wstring folder = MakeFolder(L"codes");
    WriteBytes(folder + L"\\plain", "x");
    return OfEach(names, [&](const std::wstring& name) { return ask(folder + name); });
}

FACT(folders, create_codes)
{
    return OfEachName({L"", L"\\plain", L"\\none\\x", L"\\plain\\x", L"\\a<b"},
                      [](const std::wstring& path) { return Code(CreateDirectoryW(path.c_str(), nullptr) != 0); });
}

FACT(folders, remove_codes)
{
    return OfEachName({L"", L"\\plain", L"\\missing"},
                      [](const std::wstring& path) { return Code(RemoveDirectoryW(path.c_str()) != 0); });
}

FACT(folders, delete_codes)
{
    const std::wstring absent = OfEachName({L"\\missing", L"\\missing\\x"}, Delete);
    const std::wstring folder = MakeFolder(L"codes");
    const std::wstring file = WriteBytes(folder + L"\\plain", "x");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    const std::wstring readOnly = Delete(file);
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    const repair::FileHandle held = Hold(file, GENERIC_READ, 0);
    return absent + L" " + readOnly + L" " + OfEach({file, folder}, Delete);
}

FACT(folders, exists_odd_names)
{
    const std::wstring below =
        OfEachName({L"\\missing", L"\\missing\\x", L"\\plain\\x", L"\\a<b", L"\\a*b", L"\\plain\\"},
                   [](const std::wstring& path) { return Product(repair::Exists, path); });
    return below + L" " + Product(repair::Exists, std::wstring());
}

// Windows keeps these open for itself; their attributes cannot be read.
FACT(folders, exists_system_file)
{
    for (const wchar_t* name : {L"pagefile.sys", L"swapfile.sys", L"hiberfil.sys"})
    {
        const std::wstring path = repair::GetLogFolder().substr(0, 3) + name;
        WIN32_FIND_DATAW data = {};
        const HANDLE search = FindFirstFileW(path.c_str(), &data);
        if (search != INVALID_HANDLE_VALUE)
        {
            FindClose(search);
            return {Product(repair::Exists, path), name};
        }
    }
    throw NotApplicable{L"the system drive has no page file"};
}

FACT(folders, listing)
{
    const std::wstring folder = MakeFolder(L"order");
    for (const wchar_t* name : {L"\\b3", L"\\B1", L"\\c", L"\\b20", L"\\A"})
    {
        CreateDirectoryW((folder + name).c_str(), nullptr);
    }
    WIN32_FIND_DATAW data = {};
    std::wstring names;
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &data);
    for (BOOL isFound = search != INVALID_HANDLE_VALUE; isFound != FALSE; isFound = FindNextFileW(search, &data))
    {
        names += data.cFileName + std::wstring(L" ");
    }
    const DWORD end = GetLastError();
    FindClose(search);
    wchar_t system[MAX_PATH] = {};
    GetVolumeInformationW(folder.substr(0, 3).c_str(), nullptr, 0, nullptr, nullptr, nullptr, system, MAX_PATH);
    return {names + L"then " + Number(end), system};
}

FACT(folders, same_by_spelling)
{
    const std::wstring folder = MakeFolder(L"Spelling");
    std::wstring slashes = folder;
    std::replace(slashes.begin() + 3, slashes.end(), L'\\', L'/');
    const std::wstring shortName =
        Filled([&](wchar_t* path, DWORD size) { GetShortPathNameW(folder.c_str(), path, size); });
    return OfEach({Lower(folder), slashes, folder + L"\\", folder + L"\\.", folder + L"\\..\\Spelling",
                   L"\\\\?\\" + folder, shortName},
                  [&](const std::wstring& other) { return Product(repair::SameObject, folder, other); });
}

FACT(folders, same_of_others)
{
    const std::wstring folder = MakeFolder(L"Spelling");
    return OfEach({ThisPc().folder, folder + L"\\missing", L""},
                  [&](const std::wstring& other) { return Product(repair::SameObject, folder, other); });
}

FACT(folders, long_ids)
{
    const repair::FileHandle file =
        Hold(WriteBytes(MakeFolder(L"ids") + L"\\file", "x"), GENERIC_READ, FILE_SHARE_READ);
    BY_HANDLE_FILE_INFORMATION information = {};
    GetFileInformationByHandle(file.Get(), &information);
    FILE_ID_INFO ids = {};
    if (GetFileInformationByHandleEx(file.Get(), FileIdInfo, &ids, sizeof(ids)) == 0)
    {
        return L"none: " + Code(false);
    }
    const DWORD shortId[] = {information.nFileIndexLow, information.nFileIndexHigh, 0, 0};
    const bool isSame = std::memcmp(&ids.FileId, shortId, sizeof(shortId)) == 0;
    return std::wstring(isSame ? L"the same id" : L"another id") +
           (static_cast<DWORD>(ids.VolumeSerialNumber) == information.dwVolumeSerialNumber ? L" and volume"
                                                                                           : L", another volume");
}

FACT(folders, below_by_any_name)
{
    const std::wstring folder = MakeFolder(L"A longer name");
    const repair::FileHandle held = repair::HoldFolder(folder);
    WriteBytes(folder + L"\\file", "x");
    const std::wstring shortName =
        Filled([&](wchar_t* path, DWORD size) { GetShortPathNameW(folder.c_str(), path, size); });
    return OfEach({folder, Lower(folder), shortName}, [&](const std::wstring& spelling) {
        const repair::FileHandle file = Hold(spelling + L"\\file", GENERIC_READ, FILE_SHARE_READ);
        return YesNo(repair::IsBelow(file.Get(), held.Get(), FILE_NAME_NORMALIZED));
    });
}

// Without SEM_FAILCRITICALERRORS, which this program has set as well, a box would keep the check waiting.
FACT(folders, drive_without_medium)
{
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter)
    {
        const std::wstring path = std::wstring(1, letter) + L":\\x";
        const UINT type = GetDriveTypeW(path.substr(0, 3).c_str());
        if ((type == DRIVE_REMOVABLE || type == DRIVE_CDROM) &&
            GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES && GetLastError() != ERROR_FILE_NOT_FOUND)
        {
            const std::wstring code = Code(false);
            return L"code " + code + L", exists: " + YesNo(repair::FileExists(path));
        }
    }
    throw NotApplicable{L"this PC has no drive without a medium"};
}

FACT(folders, temporary_of_environment)
{
    const std::wstring before = Environment(L"TMP");
    const std::wstring usual = Filled([](wchar_t* path, DWORD size) { GetTempPathW(size, path); });
    const std::wstring folder = MakeFolder(L"temporary");
    SetEnvironmentVariableW(L"TMP", folder.c_str());  // of this process only
    const std::wstring found = Filled([](wchar_t* path, DWORD size) { GetTempPathW(size, path); });
    SetEnvironmentVariableW(L"TMP", before.empty() ? nullptr : before.c_str());
    return {found == folder + L"\\" ? L"TMP, with a backslash at the end" : found, usual};
}

std::wstring ProgramFiles()
{
    return Filled([](wchar_t* path, DWORD) { SHGetSpecialFolderPathW(nullptr, path, CSIDL_PROGRAM_FILES, FALSE); });
}

FACT(folders, program_files)
{
    const std::wstring variable = Environment(L"ProgramW6432");
    const bool isSame = !variable.empty() && ProgramFiles() == variable;
    return isSame ? L"the 64-bit one" : Quoted(ProgramFiles()) + L" " + Quoted(variable);
}

SHORT_FACT(folders, log_below_program_files,
           {YesNo(repair::GetLogFolder().starts_with(ProgramFiles() + L"\\")), repair::GetLogFolder()})
}  // namespace
}  // namespace windows_check
