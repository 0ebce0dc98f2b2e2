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
    const bool hasName = !SessionText(WTSUserName).empty();
    const bool hasDomain = !SessionText(WTSDomainName).empty();
    return Saw(hasName && hasDomain ? L"domain and name" : hasName ? L"name only" : L"none");
}

FACT(security, system_session)
{
    Need(ThisPc().session == 0,
         L"a user has signed in to this session; start the program as the system account for this");
    return Saw(SessionUser() == L"\\" ? L"none" : L"a name");
}

// The identifier of an account name and its kind; an empty identifier if there is none.
std::vector<BYTE> SidOf(const std::wstring& name, SID_NAME_USE& use)
{
    std::vector<BYTE> sid(SECURITY_MAX_SID_SIZE);
    DWORD bytes = static_cast<DWORD>(sid.size());
    wchar_t domain[256] = {};
    DWORD domainLength = 256;
    const BOOL isKnown = LookupAccountNameW(nullptr, name.c_str(), sid.data(), &bytes, domain, &domainLength, &use);
    return isKnown == FALSE ? std::vector<BYTE>() : sid;
}

FACT(security, name_has_sid)
{
    Need(ThisPc().session != 0, kSystemSession);
    SID_NAME_USE use = SidTypeUnknown;
    if (SidOf(SessionUser(), use).empty())
    {
        return Saw(L"none: " + Number(GetLastError()));
    }
    return Saw(use == SidTypeUser ? L"a user" : L"kind " + std::to_wstring(use));
}

FACT(security, well_known_sids)
{
    std::vector<std::wstring> seen;
    for (const WELL_KNOWN_SID_TYPE type : {WinBuiltinAdministratorsSid, WinLocalSystemSid})
    {
        BYTE sid[SECURITY_MAX_SID_SIZE] = {};
        DWORD bytes = sizeof(sid);
        wchar_t* text = nullptr;
        CreateWellKnownSid(type, nullptr, sid, &bytes);
        ConvertSidToStringSidW(sid, &text);
        seen.emplace_back(text == nullptr ? L"none" : text);
        LocalFree(text);
    }
    return Saw(Joined(seen));
}

// As the tool makes its list, with one entry by name.
std::wstring ListWithName(std::wstring name, std::wstring& detail)
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
    if (result != ERROR_SUCCESS || list == nullptr)
    {
        return Number(result);
    }
    void* first = nullptr;
    if (list->AceCount != 1 || GetAce(list, 0, &first) == 0)
    {
        return Number(list->AceCount) + L" entries";
    }
    const auto* const allowed = static_cast<const ACCESS_ALLOWED_ACE*>(first);
    detail = L"flags " + Number(allowed->Header.AceFlags);
    return Hex(allowed->Mask);
}

FACT(security, list_with_user)
{
    Need(ThisPc().session != 0, kSystemSession);
    std::wstring detail;
    const std::wstring seen = ListWithName(SessionUser(), detail);
    return Saw(seen, detail);
}

FACT(security, list_with_unknown_name)
{
    std::wstring detail;
    return Saw(ListWithName(L"TavikWindowsCheckUnknown", detail));
}

// What the tool hands over in a session without a user.
FACT(security, list_without_name)
{
    std::wstring detail;
    const std::wstring seen = ListWithName(L"\\", detail);
    return Saw(seen.starts_with(L"0x") ? L"accepted" : L"refused", seen);
}

// Asked once for all facts about the folder; the answering process holds the marker.
const Answer& FolderAnswer()
{
    static const Answer answer = [] {
        const std::wstring parent = MakeFolder(L"secure");
        return Ask(ThisPc().program, L"folder", L"\"" + parent + L"\"");
    }();
    return answer;
}

Seen OfFolder(const wchar_t* name)
{
    Need(ThisPc().isElevated,
         L"needs an administrator, as the tool does: others may not write into a folder of these rights");
    Need(ThisPc().session != 0, kSystemSession);
    return Saw(FolderAnswer()[name], FolderAnswer()[L"sddl"]);
}

SHORT_FACT(security, folder_is_made, OfFolder(L"result"))
SHORT_FACT(security, folder_is_protected, OfFolder(L"protected"))
SHORT_FACT(security, folder_rights, OfFolder(L"rights"))
SHORT_FACT(security, rights_inside, OfFolder(L"inside"))
SHORT_FACT(security, marker_keeps_folder, OfFolder(L"marker"))

FACT(security, marker_is_gone)
{
    OfFolder(L"result");
    const std::wstring folder = ThisPc().folder + L"\\secure\\LPInstaller";
    if (FolderAnswer()[L"has marker"] != L"yes" || GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        return Saw(L"no marker that could go");
    }
    const DWORD attributes = GetFileAttributesW((folder + L"\\~.tmp").c_str());
    return Saw(attributes == INVALID_FILE_ATTRIBUTES ? L"gone" : L"still there");
}

// The rights to the object itself: of all entries together, by kind of account.
std::wstring RightsOf(ACL* list, const std::vector<BYTE>& userSid)
{
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    std::map<std::wstring, DWORD> rights;
    for (WORD i = 0; list != nullptr && i < list->AceCount; ++i)
    {
        void* found = nullptr;
        GetAce(list, i, &found);
        auto* const entry = static_cast<ACCESS_ALLOWED_ACE*>(found);
        if (entry->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || (entry->Header.AceFlags & INHERIT_ONLY_ACE) != 0)
        {
            continue;
        }
        void* const sid = &entry->SidStart;
        std::wstring who = L"others";
        if (IsWellKnownSid(sid, WinBuiltinAdministratorsSid) != 0)
        {
            who = L"administrators";
        }
        else if (IsWellKnownSid(sid, WinLocalSystemSid) != 0)
        {
            who = L"system";
        }
        else if (!userSid.empty() && EqualSid(sid, const_cast<BYTE*>(userSid.data())) != 0)
        {
            who = L"user";
        }
        DWORD mask = entry->Mask;
        MapGenericMask(&mask, &mapping);
        rights[who] |= mask;
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
    void* descriptor = nullptr;
    const DWORD result =
        GetNamedSecurityInfoW(const_cast<wchar_t*>(path.c_str()), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, &list, nullptr, &descriptor);
    const repair::LocalMemory owner(descriptor);
    SID_NAME_USE use = SidTypeUnknown;
    Tell(name, result == ERROR_SUCCESS ? RightsOf(list, SidOf(SessionUser(), use)) : L"error " + Number(result));
    if (result == ERROR_SUCCESS && std::wstring(name) == L"rights")
    {
        SECURITY_DESCRIPTOR_CONTROL control = 0;
        DWORD revision = 0;
        GetSecurityDescriptorControl(descriptor, &control, &revision);
        Tell(L"protected", YesNo((control & SE_DACL_PROTECTED) != 0));
        wchar_t* text = nullptr;
        ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                             &text, nullptr);
        Tell(L"sddl", text == nullptr ? L"none" : text);
        LocalFree(text);
    }
}
PROBE(folder)
{
    if (count == 0)
    {
        return 1;
    }
    ProcessIdToSessionId(GetCurrentProcessId(), &ThisPc().session);
    const std::wstring parent = arguments[0];
    const std::wstring folder = parent + L"\\LPInstaller";
    Tell(L"result", Number(repair::CreateSecureDirectory(folder)));
    TellRights(L"rights", folder);
    TellRights(L"inside", WriteBytes(folder + L"\\unpacked", "x"));

    const std::wstring marker = folder + L"\\~.tmp";
    Tell(L"has marker", YesNo(GetFileAttributesW(marker.c_str()) != INVALID_FILE_ATTRIBUTES));
    const HANDLE opened = CreateFileW(marker.c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
    std::wstring seen = L"opened " + Code(opened != INVALID_HANDLE_VALUE);
    seen += L", deleted " + Code(DeleteFileW(marker.c_str()) != 0);
    const bool isRenamed = MoveFileW(folder.c_str(), (folder + L"2").c_str()) != 0;
    seen += L", folder renamed " + Code(isRenamed);
    if (isRenamed)
    {
        MoveFileW((folder + L"2").c_str(), folder.c_str());
    }
    Tell(L"marker", seen);
    return 0;
}
}  // namespace
}  // namespace windows_check
