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
// The owner of an open file or folder; empty if it cannot be read.
struct Owner
{
    explicit Owner(HANDLE object)
    {
        void* memory = nullptr;
        GetSecurityInfo(object, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &sid, nullptr, nullptr, nullptr, &memory);
        descriptor = LocalMemory(memory);
    }
    [[nodiscard]] bool Is(PSID other) const
    {
        return sid != nullptr && other != nullptr && EqualSid(sid, other) != FALSE;
    }

    LocalMemory descriptor;
    PSID sid = nullptr;  // in the descriptor
};

// Creates the folder with the owner in the attributes or, if the process may not set that owner, with the default one.
bool CreateFolder(const std::wstring& folder, SECURITY_ATTRIBUTES& attributes)
{
    if (CreateDirectoryW(folder.c_str(), &attributes) != FALSE)
    {
        return true;
    }
    return GetLastError() == ERROR_INVALID_OWNER &&
           SetSecurityDescriptorOwner(attributes.lpSecurityDescriptor, nullptr, FALSE) != FALSE &&
           CreateDirectoryW(folder.c_str(), &attributes) != FALSE;
}

// Whether the open folder is the one that was created and contains the marker. Without a marker, checks only its owner.
bool IsAsMade(const FileHandle& folder, const FileHandle& marker, PSID administrators)
{
    if (!folder)
    {
        return false;
    }
    const Owner owner(folder.Get());
    return marker
               ? IsBelow(marker.Get(), folder.Get()) && (owner.Is(administrators) || owner.Is(Owner(marker.Get()).sid))
               : owner.Is(administrators);
}
}  // namespace

DWORD CreateSecureDirectory(const std::wstring& folder)
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

    // The user must not be the owner, because an owner may change the access list. A failure leaves the default owner.
    SetSecurityDescriptorOwner(descriptor.Get(), access.administrators.bytes, FALSE);

    for (int attempt = 1;; ++attempt)
    {
        CreateDirectories(std::filesystem::path(folder).parent_path().wstring());
        RemoveAll(folder);
        if (!CreateFolder(folder, attributes))
        {
            return GetLastError();
        }
        const FileHandle held = HoldFolder(folder, READ_CONTROL);
        FileHandle marker(CreateFileW((folder + kMarkerFile).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
        if (attempt == kPreparations || IsAsMade(held, marker, access.administrators.bytes))
        {
            // Never closed: while this unshared file is open, the folder cannot be removed or replaced. The system
            // deletes the file when the process ends.
            static_cast<void>(marker.Release());
            return ERROR_SUCCESS;
        }
    }
}
}  // namespace repair
