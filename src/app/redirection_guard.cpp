#include "app/redirection_guard.h"

#include <windows.h>

#include "base/library.h"

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
}  // namespace

void GuardAgainstRedirection() noexcept
{
    using SetPolicy = BOOL(WINAPI*)(PROCESS_MITIGATION_POLICY, void*, SIZE_T);
    const auto setPolicy = LookUpFunction<SetPolicy>(GetModuleHandleW(L"kernel32.dll"), "SetProcessMitigationPolicy");
    if (setPolicy != nullptr && IsLocalSystem())
    {
        PROCESS_MITIGATION_REDIRECTION_TRUST_POLICY policy = {};
        policy.EnforceRedirectionTrust = 1;
        setPolicy(ProcessRedirectionTrustPolicy, &policy, sizeof(policy));  // refused by older versions
    }
}
}  // namespace repair
