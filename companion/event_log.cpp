#include "companion/event_log.h"

#include <windows.h>

#include "base/owned.h"
#include "base/registry.h"
#include "companion/failure.h"

namespace repair
{
namespace
{
constexpr wchar_t kSource[] = L"TavikToolCompanion";
constexpr wchar_t kSourceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\TavikToolCompanion";
constexpr DWORD kKinds = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;

struct EventSourceKind
{
    using Handle = HANDLE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle source) noexcept { DeregisterEventSource(source); }
};
using EventSource = Owned<EventSourceKind>;

void Register(const std::wstring& program)
{
    HKEY handle = nullptr;
    LSTATUS status =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSourceKey, 0, nullptr, 0, KEY_WRITE, nullptr, &handle, nullptr);
    const RegistryKey key(handle);
    if (status == ERROR_SUCCESS)
    {
        status =
            RegSetValueExW(key.Get(), L"EventMessageFile", 0, REG_SZ, reinterpret_cast<const BYTE*>(program.c_str()),
                           static_cast<DWORD>((program.size() + 1) * sizeof(wchar_t)));
    }
    if (status == ERROR_SUCCESS)
    {
        status = RegSetValueExW(key.Get(), L"TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&kKinds),
                                sizeof(kKinds));
    }
    if (status != ERROR_SUCCESS)
    {
        throw Failure(
            SystemFailure("the source of the Application log cannot be registered", static_cast<DWORD>(status)));
    }
}
}  // namespace

void WriteEvent(std::uint32_t id, int code, const std::vector<std::wstring>& texts, const std::wstring& program)
{
    Register(program);
    std::vector<const wchar_t*> pointers;
    pointers.reserve(texts.size());
    for (const std::wstring& text : texts)
    {
        pointers.push_back(text.c_str());
    }
    const WORD kind = code == 0 || code == ERROR_SUCCESS_REBOOT_REQUIRED ? EVENTLOG_INFORMATION_TYPE
                      : code == ERROR_INSTALL_ALREADY_RUNNING            ? EVENTLOG_WARNING_TYPE
                                                                         : EVENTLOG_ERROR_TYPE;
    const EventSource source(RegisterEventSourceW(nullptr, kSource));
    if (!source || ReportEventW(source.Get(), kind, 0, id, nullptr, static_cast<WORD>(pointers.size()), 0,
                                pointers.data(), nullptr) == 0)
    {
        throw Failure(SystemFailure("the Application log cannot be written", GetLastError()));
    }
}
}  // namespace repair
