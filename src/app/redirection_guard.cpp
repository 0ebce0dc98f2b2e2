#include "app/redirection_guard.h"

#include <iterator>
#include <string>

#include <windows.h>

#include "base/files.h"
#include "base/library.h"
#include "base/log.h"

namespace repair
{
namespace
{
bool IsLocalSystem() noexcept
{
    alignas(DWORD) BYTE localSystem[SECURITY_MAX_SID_SIZE] = {};
    DWORD size = sizeof(localSystem);
    BOOL isMember = FALSE;
    return CreateWellKnownSid(WinLocalSystemSid, nullptr, localSystem, &size) != FALSE &&
           CheckTokenMembership(nullptr, localSystem, &isMember) != FALSE && isMember != FALSE;
}

// Links that administrators made before Windows had the guard may count as planted, and no log could be written then.
bool WorksThroughLinks()
{
    wchar_t temporaryFolder[MAX_PATH + 1] = {};
    GetTempPathW(static_cast<DWORD>(std::size(temporaryFolder)), temporaryFolder);
    return CrossesLink(GetLogFolder()) || CrossesLink(temporaryFolder);
}
}  // namespace

void GuardAgainstRedirection() noexcept
{
    using SetPolicy = BOOL(WINAPI*)(PROCESS_MITIGATION_POLICY, void*, SIZE_T);
    const auto setPolicy = LookUpFunction<SetPolicy>(GetModuleHandleW(L"kernel32.dll"), "SetProcessMitigationPolicy");
    if (setPolicy != nullptr && IsLocalSystem() && !WorksThroughLinks())
    {
        PROCESS_MITIGATION_REDIRECTION_TRUST_POLICY policy = {};
        policy.EnforceRedirectionTrust = 1;
        setPolicy(ProcessRedirectionTrustPolicy, &policy, sizeof(policy));  // refused by older versions
    }
}
}  // namespace repair
