#include "companion/safe_place.h"

#include <filesystem>
#include <iterator>

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include "base/files.h"
#include "base/log.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/unicode.h"
#include "install/constants.h"

namespace repair
{
namespace
{
// Owned by administrators; they and the system have all rights; nothing is inherited from the folder above.
constexpr wchar_t kSecurity[] = L"O:BAD:PAI(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)";
// More than one, because an installer that goes on, or a user, may have a file open in the last one.
constexpr int kTemporaryFolders = 9;
constexpr int kMoveAttempts = 20;
constexpr DWORD kMovePauseMs = 250;

[[noreturn]] void Fail(const std::wstring& path, DWORD error)
{
    throw Failure(SystemFailure(ToUtf8(path) + ": this folder cannot be made safe", error));
}

bool IsOurAccount(PSID sid)
{
    HANDLE handle = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &handle);
    const ProcessHandle token(handle);
    alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE] = {};
    DWORD size = 0;
    return GetTokenInformation(token.Get(), TokenUser, user, sizeof(user), &size) != 0 &&
           EqualSid(sid, reinterpret_cast<const TOKEN_USER*>(user)->User.Sid) != 0;
}

// True if administrators or the system own the open folder, or the administrator that this program runs as: on some
// machines a policy makes him the owner. Throws Failure if the owner cannot be read.
bool BelongsToAdministrators(const std::wstring& path, HANDLE folder)
{
    PSID owner = nullptr;
    void* memory = nullptr;
    const DWORD error =
        GetSecurityInfo(folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr, &memory);
    if (error != ERROR_SUCCESS)
    {
        Fail(path, error);
    }
    const LocalMemory descriptor(memory);
    return IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != 0 || IsWellKnownSid(owner, WinLocalSystemSid) != 0 ||
           IsOurAccount(owner);
}

struct Rights
{
    Rights()
    {
        void* memory = nullptr;
        ConvertStringSecurityDescriptorToSecurityDescriptorW(kSecurity, SDDL_REVISION_1, &memory, nullptr);
        descriptor = LocalMemory(memory);
        attributes.lpSecurityDescriptor = memory;
    }

    LocalMemory descriptor;  // none if memory is short
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), nullptr, FALSE};
};

// Creates the folder and holds it. Throws Failure.
FileHandle CreateProtected(const std::wstring& path)
{
    Rights rights;
    if (!rights.descriptor || CreateDirectoryW(path.c_str(), &rights.attributes) == 0)
    {
        Fail(path, GetLastError());
    }
    FileHandle held = HoldFolder(path, READ_CONTROL);
    if (!held || !BelongsToAdministrators(path, held.Get()))
    {
        Fail(path, ERROR_ACCESS_DENIED);
    }
    return held;
}

// Gives a folder that exists, and what is in it, the rights again.
bool Protect(HANDLE folder)
{
    const Rights rights;
    ACL* list = nullptr;
    BOOL isPresent = FALSE;
    BOOL isDefault = FALSE;
    return rights.descriptor &&
           GetSecurityDescriptorDacl(rights.descriptor.Get(), &isPresent, &list, &isDefault) != 0 &&
           SetSecurityInfo(folder, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                           nullptr, nullptr, list, nullptr) == ERROR_SUCCESS;
}

FileHandle OpenOrCreateProtected(const std::wstring& path)
{
    if (!IsLink(path) && !FileExists(path))
    {
        Rights rights;
        const bool isNew = rights.descriptor && CreateDirectoryW(path.c_str(), &rights.attributes) != 0;
        if (!isNew && GetLastError() != ERROR_ALREADY_EXISTS)  // another first run may have made it just now
        {
            Fail(path, GetLastError());
        }
        FileHandle held = HoldFolder(path, READ_CONTROL | WRITE_DAC);
        if (!held)
        {
            Fail(path, GetLastError());
        }
        if (BelongsToAdministrators(path, held.Get()))
        {
            if (!isNew && !Protect(held.Get()))
            {
                Fail(path, ERROR_ACCESS_DENIED);
            }
            return held;
        }
    }
    RemoveAll(path);
    return CreateProtected(path);
}

bool RemoveQuietly(const std::wstring& path) noexcept
{
    try
    {
        RemoveAll(path);
        return true;
    }
    catch (const std::filesystem::filesystem_error&)
    {
        return false;
    }
}
}  // namespace

std::wstring GetProgramFolder()
{
    std::wstring folder = GetLogFolder();  // ends with "\Log\"
    folder.resize(folder.rfind(L'\\', folder.size() - 2));
    return folder;
}

SafePlace::SafePlace() : folder_(GetProgramFolder() + L"\\Repair")
{
    try
    {
        CreateDirectories(GetProgramFolder());
        held_ = OpenOrCreateProtected(folder_);
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        Fail(folder_, static_cast<DWORD>(error.code().value()));
    }
    // In this folder the file gets the folder's rights, so no user can open it and so keep a repair from starting.
    lock_ = FileHandle(CreateFileW((folder_ + L"\\Lock").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    const DWORD error = lock_ ? ERROR_SUCCESS : GetLastError();
    if (error != ERROR_SUCCESS && error != ERROR_SHARING_VIOLATION)
    {
        Fail(folder_, error);
    }
    temporary_ = TemporaryName(1);
    for (int number = 2; number <= kTemporaryFolders; ++number)  // the last run has used the last one
    {
        const std::wstring name = TemporaryName(number);
        temporary_ = GetFileAttributesW(name.c_str()) != INVALID_FILE_ATTRIBUTES ? name : temporary_;
    }
}

std::wstring SafePlace::TemporaryName(int number) const
{
    return folder_ + L"\\Temp" + (number == 1 ? L"" : std::to_wstring(number));
}

void SafePlace::MakeTemporary()
{
    temporary_.clear();
    for (int number = kTemporaryFolders; number >= 1; --number)  // all, because each can be a big one
    {
        const std::wstring name = TemporaryName(number);
        temporary_ = RemoveQuietly(name) ? name : temporary_;
    }
    if (temporary_.empty())
    {
        Fail(TemporaryName(1), ERROR_SHARING_VIOLATION);
    }
    try
    {
        const FileHandle held = CreateProtected(Temporary());
        CreateDirectories(JoinPath(Temporary(), kExtractionFolder));
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        Fail(Temporary(), static_cast<DWORD>(error.code().value()));
    }
}

bool SafePlace::KeepTemporary() const
{
    RemoveQuietly(Kept());
    // A program that was started by the tool, or a virus scanner, may have a file open for a moment.
    for (int attempt = 1; MoveFileW(Temporary().c_str(), Kept().c_str()) == 0; ++attempt)
    {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || attempt == kMoveAttempts)
        {
            return false;
        }
        Sleep(kMovePauseMs);
    }
    // The tool has let the session's user delete the packages.
    const FileHandle packages = HoldFolder(JoinPath(Kept(), kExtractionFolder), READ_CONTROL | WRITE_DAC);
    if (packages)
    {
        Protect(packages.Get());
    }
    return true;
}

void SafePlace::RemoveTemporary() const noexcept
{
    RemoveQuietly(Temporary());
}

void SafePlace::RemoveKept() const noexcept
{
    RemoveQuietly(Kept());
}
}  // namespace repair
