// The session's user, names and security identifiers, and the rights of the folder that the installer is unpacked into.
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>
#include <wtsapi32.h>

#include <map>
#include <vector>

#include "base/handles.h"
#include "install/secure_directory.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/probe.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::wstring SessionText(WTS_INFO_CLASS information)
{
    wchar_t* text = nullptr;
    DWORD bytes = 0;
    WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, ThisPc().session, information, &text, &bytes);
    const std::wstring copy = text == nullptr ? L"" : text;
    WTSFreeMemory(text);
    return copy;
}

std::wstring SessionUser()
{
    return SessionText(WTSDomainName) + L"\\" + SessionText(WTSUserName);
}

constexpr wchar_t kSystemSession[] = L"this session belongs to the system, no user has signed in to it";

FACT(security, user_is_known)
{
    Need(ThisPc().session != 0, kSystemSession);
    return Joined({SessionText(WTSDomainName).empty() ? L"no domain" : L"a domain",
                   SessionText(WTSUserName).empty() ? L"no name" : L"a name"},
                  L", ");
}

FACT(security, system_session)
{
    Need(ThisPc().session == 0,
         L"a user has signed in to this session; start the program as the system account for this");
    return SessionUser() == L"\\" ? L"none" : L"a name";
}

// As the tool makes its list, with one entry by name: the rights in it, or the code of the failure.
std::wstring ListWithName(std::wstring name)
{
    EXPLICIT_ACCESSW entry = {};
    entry.grfAccessPermissions = GENERIC_READ | GENERIC_EXECUTE | DELETE;
    entry.grfAccessMode = SET_ACCESS;
    entry.grfInheritance = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entry.Trustee.ptstrName = name.data();
    ACL* list = nullptr;
    const DWORD result = SetEntriesInAclW(1, &entry, nullptr, &list);
    const repair::LocalMemory owner(list);
    void* first = nullptr;
    return result == ERROR_SUCCESS && GetAce(list, 0, &first) != 0
               ? Hex(static_cast<const ACCESS_ALLOWED_ACE*>(first)->Mask)
               : Number(result);
}

FACT(security, list_with_user)
{
    Need(ThisPc().session != 0, kSystemSession);
    return ListWithName(SessionUser());
}

// The account name that the tool passes in a session without a user.
FACT(security, list_without_name)
{
    const std::wstring seen = ListWithName(L"\\");
    return {seen.starts_with(L"0x") ? L"accepted" : L"refused", seen};
}

// Asked once for both facts about the folder; the answering process holds the marker.
Seen OfFolder(const wchar_t* name)
{
    Need(ThisPc().isElevated,
         L"needs an administrator, as the tool does: others may not write into a folder of these rights");
    Need(ThisPc().session != 0, kSystemSession);
    static const Answer answer = Ask(L"folder \"" + MakeFolder(L"secure") + L"\"");
    return {answer[name], answer[L"sddl"]};
}

SHORT_FACT(security, folder_rights, OfFolder(L"rights"))
SHORT_FACT(security, rights_inside, OfFolder(L"inside"))
SHORT_FACT(security, folder_owner, OfFolder(L"owner"))

// The identifier of an account name; empty if there is none.
std::vector<BYTE> SidOf(const std::wstring& name)
{
    std::vector<BYTE> sid(SECURITY_MAX_SID_SIZE);
    DWORD bytes = static_cast<DWORD>(sid.size());
    wchar_t domain[256] = {};
    DWORD domainLength = 256;
    SID_NAME_USE use = SidTypeUnknown;
    const BOOL isKnown = LookupAccountNameW(nullptr, name.c_str(), sid.data(), &bytes, domain, &domainLength, &use);
    return isKnown == FALSE ? std::vector<BYTE>() : sid;
}

const wchar_t* KindOf(void* sid, std::vector<BYTE>& user)
{
    return IsWellKnownSid(sid, WinBuiltinAdministratorsSid) != 0 ? L"administrators"
           : IsWellKnownSid(sid, WinLocalSystemSid) != 0         ? L"system"
           : !user.empty() && EqualSid(sid, user.data()) != 0    ? L"user"
                                                                 : L"others";
}

// The rights to the object itself: of all entries together, by kind of account.
std::wstring RightsOf(ACL* list)
{
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    std::vector<BYTE> user = SidOf(SessionUser());
    std::map<std::wstring, DWORD> rights;
    for (WORD i = 0; list != nullptr && i < list->AceCount; ++i)
    {
        void* found = nullptr;
        GetAce(list, i, &found);
        auto* const entry = static_cast<ACCESS_ALLOWED_ACE*>(found);
        if (entry->Header.AceType == ACCESS_ALLOWED_ACE_TYPE && (entry->Header.AceFlags & INHERIT_ONLY_ACE) == 0)
        {
            DWORD mask = entry->Mask;
            MapGenericMask(&mask, &mapping);
            rights[KindOf(&entry->SidStart, user)] |= mask;
        }
    }
    std::vector<std::wstring> texts;
    texts.reserve(rights.size());
    for (const auto& [who, mask] : rights)
    {
        texts.push_back(who + L" " + Hex(mask).substr(2));
    }
    return texts.empty() ? L"none" : Joined(texts, L", ");
}

void TellRights(const wchar_t* name, const std::wstring& path)
{
    ACL* list = nullptr;
    void* owner = nullptr;
    void* descriptor = nullptr;
    GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | OWNER_SECURITY_INFORMATION, &owner,
                          nullptr, &list, nullptr, &descriptor);
    const repair::LocalMemory memory(descriptor);
    std::vector<BYTE> user = SidOf(SessionUser());
    Tell(L"owner", owner == nullptr ? L"unknown" : KindOf(owner, user));  // the last path's counts
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    GetSecurityDescriptorControl(descriptor, &control, &revision);
    Tell(name, ((control & SE_DACL_PROTECTED) != 0 ? L"protected, " : L"inherited, ") + RightsOf(list));
    wchar_t* text = nullptr;
    ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
                                                         nullptr);
    const repair::LocalMemory textOwner(text);
    Tell(L"sddl", text == nullptr ? L"none" : text);
}

PROBE(folder)
{
    ProcessIdToSessionId(GetCurrentProcessId(), &ThisPc().session);
    const std::wstring folder = argument + L"\\LPInstaller";
    repair::HeldFolder parent;
    if (const DWORD error = repair::CreateSecureDirectory(folder, parent); error != ERROR_SUCCESS)
    {
        return static_cast<int>(error);
    }
    TellRights(L"inside", WriteBytes(folder + L"\\unpacked", "x"));
    TellRights(L"rights", folder);
    return 0;
}
}  // namespace
}  // namespace windows_check
