#include "companion/last_run.h"

#include <windows.h>

#include "base/registry.h"
#include "companion/failure.h"

namespace repair
{
namespace
{
constexpr wchar_t kKey[] = L"SOFTWARE\\Tavik\\RepairTool\\LastRun";

template <class Type>
struct Value
{
    const wchar_t* name;
    using Field = Type LastRun::*;
    Field field;
};
constexpr Value<std::wstring> kTexts[] = {
    {L"Outcome", &LastRun::outcome},
    {L"Title", &LastRun::title},
    {L"Started", &LastRun::started},
    {L"Ended", &LastRun::ended},
    {L"Mark", &LastRun::mark},
    {L"Release", &LastRun::release},
    {L"VersionBefore", &LastRun::versionBefore},
    {L"VersionAfter", &LastRun::versionAfter},
    {L"Log", &LastRun::log},
    {L"KeptInstaller", &LastRun::keptInstaller},
    {L"KeptRelease", &LastRun::keptRelease},
    {L"RecoveryAttempts", &LastRun::recoveryAttempts},
    {L"Tool", &LastRun::tool},
};

constexpr Value<std::uint32_t> kNumbers[] = {
    {L"Code", &LastRun::code},
    {L"Attempt", &LastRun::attempt},
    {L"ProductsLost", &LastRun::lost},
    {L"RecoveryFailures", &LastRun::failures},
};
constexpr wchar_t kProducts[] = L"ProductsBefore";
constexpr wchar_t kToolCode[] = L"ToolCode";
constexpr wchar_t kRecoveryPending[] = L"RecoveryPending";

std::wstring ReadText(const RegistryKey& key, const wchar_t* name)
{
    try
    {
        return ReadRegistryString(key, L"", name);
    }
    catch (const RegKeyError&)
    {
        return {};
    }
}

std::optional<std::uint32_t> ReadNumber(const RegistryKey& key, const wchar_t* name)
{
    DWORD number = 0;
    DWORD size = sizeof(number);
    const LSTATUS status = RegGetValueW(key.Get(), nullptr, name, RRF_RT_REG_DWORD, nullptr, &number, &size);
    return status == ERROR_SUCCESS ? std::optional<std::uint32_t>(number) : std::nullopt;
}

void Check(LSTATUS status)
{
    if (status != ERROR_SUCCESS)
    {
        throw Failure(SystemFailure("the registry key of the last run cannot be written", static_cast<DWORD>(status)));
    }
}

void WriteNumber(const RegistryKey& key, const wchar_t* name, std::uint32_t number)
{
    Check(RegSetValueExW(key.Get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof(number)));
}
}  // namespace

std::optional<LastRun> ReadLastRun()
{
    HKEY handle = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_READ | KEY_WOW64_64KEY, &handle);
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return std::nullopt;
    }
    if (status != ERROR_SUCCESS)
    {
        throw Failure(SystemFailure("the registry key of the last run cannot be read", static_cast<DWORD>(status)));
    }
    const RegistryKey key(handle);
    LastRun last;
    for (const Value<std::wstring>& value : kTexts)
    {
        last.*value.field = ReadText(key, value.name);
    }
    for (const Value<std::uint32_t>& value : kNumbers)
    {
        last.*value.field = ReadNumber(key, value.name).value_or(0);
    }
    last.products = ReadNumber(key, kProducts).value_or(0);
    last.toolCode = ReadNumber(key, kToolCode);
    last.recoveryPending = ReadNumber(key, kRecoveryPending).value_or(0) != 0;
    return last;
}

void WriteLastRun(const LastRun& last)
{
    HKEY handle = nullptr;
    Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_READ | KEY_WRITE | KEY_WOW64_64KEY, nullptr,
                          &handle, nullptr));
    const RegistryKey key(handle);
    for (const Value<std::wstring>& value : kTexts)
    {
        const std::wstring& text = last.*value.field;
        Check(RegSetValueExW(key.Get(), value.name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                             static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
    }
    for (const Value<std::uint32_t>& value : kNumbers)
    {
        WriteNumber(key, value.name, last.*value.field);
    }
    WriteNumber(key, kRecoveryPending, last.recoveryPending ? 1 : 0);
    if (last.toolCode)
    {
        WriteNumber(key, kToolCode, *last.toolCode);
    }
    else
    {
        RegDeleteValueW(key.Get(), kToolCode);
    }
    WriteNumber(key, kProducts, last.products);  // the last one, so that an interruption here forgets no loss
    Check(RegFlushKey(key.Get()));
}

std::uint32_t LostProducts(const LastRun& last, std::uint32_t installedNow)
{
    return ((last.recoveryPending ? last.lost : 0) | last.products) & ~installedNow;
}
}  // namespace repair
