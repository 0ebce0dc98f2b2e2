// Entries in the Application log: source, id and kind.
#include "companion/event_log.h"

#include <tuple>

#include "support/machine_registry.h"
#include "support/test.h"

#include "base/registry.h"
#include "companion/failure.h"

IMPORTED(DeregisterEventSource, RegisterEventSourceW, ReportEventW)

using namespace repair;

TEST(EventLog, AnEntryHasTheIdOfItsOutcomeAndAKindByItsCode)
{
    const MachineRegistry registry;
    using Entry = std::tuple<std::wstring, WORD, DWORD, std::wstring>;
    std::vector<Entry> entries;
    std::wstring opened;
    SUBSTITUTE(RegisterEventSourceW)
    open([&](const wchar_t*, const wchar_t* source) {
        opened = source;
        return reinterpret_cast<HANDLE>(&entries);
    });
    SUBSTITUTE(DeregisterEventSource) close([](auto...) { return TRUE; });
    SUBSTITUTE(ReportEventW)
    report([&](HANDLE, WORD kind, WORD, DWORD id, PSID, WORD count, DWORD, const wchar_t** texts, void*) {
        entries.emplace_back(opened, kind, id, count == 2 ? std::wstring(texts[0]) + texts[1] : std::wstring());
        return TRUE;
    });
    const std::pair<int, WORD> kinds[] = {{0, EVENTLOG_INFORMATION_TYPE},
                                          {3010, EVENTLOG_INFORMATION_TYPE},
                                          {1618, EVENTLOG_WARNING_TYPE},
                                          {1603, EVENTLOG_ERROR_TYPE}};
    std::vector<Entry> wanted;
    for (const auto& [code, kind] : kinds)
    {
        WriteEvent(912, code, {L"one ", L"two"}, L"C:\\x\\companion.exe");
        wanted.emplace_back(L"TavikToolCompanion", kind, 912U, L"one two");
    }
    EXPECT_EQ(entries, wanted);
    constexpr wchar_t kSourceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\TavikToolCompanion";
    EXPECT_EQ(ReadMachineString(kSourceKey, L"EventMessageFile"), L"C:\\x\\companion.exe");
}

TEST(EventLog, AnEntryThatIsNotWrittenIsAnError)
{
    const MachineRegistry registry;
    SUBSTITUTE(ReportEventW) report([](auto...) { return FALSE; });
    EXPECT_THROW(WriteEvent(101, 0, {}, L"C:\\x\\companion.exe"), Failure);
}
