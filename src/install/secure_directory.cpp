#include "install/secure_directory.h"

#include <filesystem>
#include <iterator>

#include <windows.h>
#include <aclapi.h>
#include <wtsapi32.h>

#include "base/files.h"
#include "base/handles.h"
#include "install/constants.h"

namespace repair
{
namespace
{
struct SessionTextKind
{
    using Handle = wchar_t*;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle text) noexcept { WTSFreeMemory(text); }
};
using SessionText = Owned<SessionTextKind>;

std::wstring QuerySession(DWORD session, WTS_INFO_CLASS information)
{
    wchar_t* text = nullptr;
    DWORD bytes = 0;
    WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, information, &text, &bytes);
    const SessionText owner(text);
    return text != nullptr ? std::wstring(text) : std::wstring();
}

// Domain and name of the user of the tool's session, who may differ from the administrator it runs as.
std::wstring SessionUser()
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    const std::wstring domain = QuerySession(session, WTSDomainName);
    return domain + L"\\" + QuerySession(session, WTSUserName);
}

struct WellKnownSid
{
    explicit WellKnownSid(WELL_KNOWN_SID_TYPE type)
    {
        DWORD size = sizeof(bytes);
        CreateWellKnownSid(type, nullptr, bytes, &size);
    }
    alignas(DWORD) BYTE bytes[SECURITY_MAX_SID_SIZE] = {};
};

EXPLICIT_ACCESSW Allow(DWORD rights, TRUSTEE_FORM form, wchar_t* trustee)
{
    EXPLICIT_ACCESSW entry = {};
    entry.grfAccessPermissions = rights;
    entry.grfAccessMode = SET_ACCESS;
    entry.grfInheritance = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    entry.Trustee.TrusteeForm = form;
    entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entry.Trustee.ptstrName = trustee;
    return entry;
}

// The access rights to the folder. The entries point to the other members, so the object must stay in place.
struct AccessEntries
{
    WellKnownSid administrators{WinBuiltinAdministratorsSid};
    WellKnownSid localSystem{WinLocalSystemSid};
    std::wstring user = SessionUser();
    EXPLICIT_ACCESSW entries[3] = {
        Allow(GENERIC_ALL, TRUSTEE_IS_SID, reinterpret_cast<wchar_t*>(administrators.bytes)),
        Allow(GENERIC_ALL, TRUSTEE_IS_SID, reinterpret_cast<wchar_t*>(localSystem.bytes)),
        Allow(GENERIC_READ | GENERIC_EXECUTE | DELETE, TRUSTEE_IS_NAME, user.data()),
    };
};

// The owner and the rights of an open file or folder; empty if they cannot be read.
struct Security
{
    explicit Security(HANDLE object)
    {
        void* memory = nullptr;
        GetSecurityInfo(object, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner, nullptr,
                        nullptr, nullptr, &memory);
        descriptor = LocalMemory(memory);
    }
    [[nodiscard]] bool IsOwnedBy(PSID other) const
    {
        return owner != nullptr && other != nullptr && EqualSid(owner, other) != FALSE;
    }
    [[nodiscard]] bool InheritsNothing() const
    {
        SECURITY_DESCRIPTOR_CONTROL control = 0;
        DWORD revision = 0;
        return descriptor && GetSecurityDescriptorControl(descriptor.Get(), &control, &revision) != FALSE &&
               (control & SE_DACL_PROTECTED) != 0;
    }

    LocalMemory descriptor;
    PSID owner = nullptr;  // in the descriptor
};

// Returns 0 or the error. A null owner is the process's default one.
DWORD CreateFolder(const std::wstring& folder, SECURITY_ATTRIBUTES& attributes, PSID owner)
{
    SetSecurityDescriptorOwner(attributes.lpSecurityDescriptor, owner, FALSE);  // a failure leaves the default owner
    return CreateDirectoryW(folder.c_str(), &attributes) != FALSE ? ERROR_SUCCESS : GetLastError();
}

// Whether the open folder has the owner, unless that is null, and the rights that were set.
bool HasOurRights(const FileHandle& folder, PSID owner)
{
    if (!folder)
    {
        return false;
    }
    const Security security(folder.Get());
    return (owner == nullptr || security.IsOwnedBy(owner)) && security.InheritsNothing();
}

// Whether the open folder contains the marker, if one was created, and nothing else.
bool ContainsOnlyMarker(const FileHandle& folder, const FileHandle& marker)
{
    return !marker || (IsBelow(marker.Get(), folder.Get()) && ContainsOnly(folder.Get(), kMarkerFile));
}

// For a folder that was made with the default owner of the process.
bool HaveSameOwner(const FileHandle& folder, const FileHandle& marker)
{
    return !marker || Security(folder.Get()).IsOwnedBy(Security(marker.Get()).owner);
}
}  // namespace

DWORD CreateSecureDirectory(const std::wstring& folder, HeldFolder& parent)
{
    AccessEntries access;
    ACL* list = nullptr;
    if (SetEntriesInAclW(static_cast<ULONG>(std::size(access.entries)), access.entries, nullptr, &list) !=
        ERROR_SUCCESS)
    {
        return GetLastError();
    }
    const LocalMemory accessList(list);
    const LocalMemory descriptor(LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH));
    if (!accessList || !descriptor ||
        InitializeSecurityDescriptor(descriptor.Get(), SECURITY_DESCRIPTOR_REVISION) == FALSE ||
        SetSecurityDescriptorDacl(descriptor.Get(), TRUE, static_cast<ACL*>(accessList.Get()), FALSE) == FALSE ||
        // Otherwise the user would inherit full control from the temporary folder.
        SetSecurityDescriptorControl(descriptor.Get(), SE_DACL_PROTECTED, SE_DACL_PROTECTED) == FALSE)
    {
        return GetLastError();
    }
    SECURITY_ATTRIBUTES attributes = {};
    static_assert(sizeof(attributes) == 24 && SECURITY_DESCRIPTOR_MIN_LENGTH == 40);
    attributes.nLength = sizeof(attributes);
    attributes.lpSecurityDescriptor = descriptor.Get();

    const std::wstring parentPath = std::filesystem::path(folder).parent_path().wstring();
    for (int attempt = 1;; ++attempt)
    {
        CreateDirectories(parentPath);
        if (!parent.folder)
        {
            parent = HoldWithKeeper(parentPath);
        }
        RemoveAll(folder);
        // The user must not be the owner, because an owner may change the access list.
        PSID owner = access.administrators.bytes;
        DWORD error = CreateFolder(folder, attributes, owner);
        if (error != ERROR_SUCCESS && error != ERROR_ALREADY_EXISTS)
        {
            owner = nullptr;
            error = CreateFolder(folder, attributes, owner);
        }
        const bool isLast = attempt == kPreparations;
        if (error == ERROR_ALREADY_EXISTS && !isLast)  // another program was quicker
        {
            continue;
        }
        if (error != ERROR_SUCCESS)
        {
            return error;
        }
        const FileHandle held = HoldFolder(folder, READ_CONTROL);
        if (!HasOurRights(held, owner))  // then no marker is created in it
        {
            if (!isLast)
            {
                continue;
            }
            if (!held && IsLink(folder))
            {
                ThrowFileError("create_directories", folder, ERROR_CANT_RESOLVE_FILENAME);
            }
        }
        FileHandle marker(CreateFileW((folder + L"\\" + kMarkerFile).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
        if (isLast || (ContainsOnlyMarker(held, marker) && (owner != nullptr || HaveSameOwner(held, marker))))
        {
            // Never closed: while this unshared file is open, the folder cannot be removed or replaced. The system
            // deletes the file when the process ends.
            static_cast<void>(marker.Release());
            return ERROR_SUCCESS;
        }
    }
}
}  // namespace repair
