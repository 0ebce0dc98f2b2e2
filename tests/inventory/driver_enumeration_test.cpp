#include "inventory/driver_enumeration.h"

#include <list>
#include <new>
#include <optional>

#include "base/system_message.h"
#include "support/fake_devices.h"
#include "support/log_capture.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(RegGetValueW, SetupFindFirstLineW)

namespace repair
{
namespace
{
constexpr wchar_t kClassKeys[] = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
constexpr wchar_t kId[] = L"PCI\\VEN_1E7D";

std::wstring Enumerating(const std::wstring& id, const std::wstring& description = L"Marlin 5")
{
    return L"Enumerating installed drivers for " + id + L" - " + description;
}

std::wstring Found(const FakeDriverPackage& package, const std::wstring& release)
{
    return L"Found driver " + package.storePath + L". Version [" + release + L"]";
}

class DriverEnumeration : public testing::Test
{
protected:
    FakeDevice& AddAdapter(const std::wstring& id, const std::wstring& release)
    {
        return devices_.AddAdapter(id, release);
    }

    // Enumerates where exactly one adapter must be listed.
    static DisplayDriverInfo TheAdapter()
    {
        const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
        EXPECT_EQ(records.size(), 1u);
        return records.empty() ? DisplayDriverInfo() : records.front();
    }

    // A package in a folder of its own whose INF has the release.
    FakeDriverPackage MakePackage(const std::wstring& name, const std::string& release) const
    {
        folder_.CreateFolder(name);
        return {name + L".inf", folder_.WriteBytes(name + L"\\x.inf",
                                                   "[Version]\r\nSignature=\"$Windows NT$\"\r\n[S]\r\n"
                                                   "HKR,,ReleaseVersion,,\"" +
                                                       release + "\"\r\n")};
    }

    MachineRegistry registry_;
    TemporaryFolder folder_;
    FakeDevices devices_;
    LogCapture log_;
};

// Proves: An adapter of the maker with its package => one record: id, driver key, release, release up to the first hyphen, package folder, description, problem code; the calls have their parameters
TEST_F(DriverEnumeration, GivesTheRecordOfAnAdapterWithItsPackage)
{
    const std::wstring id = L"PCI\\VEN_1E7D&DEV_0042\\4&1";
    const FakeDriverPackage package = MakePackage(L"pack", "24.20.11-240611a");
    AddAdapter(id, L"24.20.11-240611a").packages = {package};
    const DisplayDriverInfo record = TheAdapter();
    EXPECT_EQ(record.instanceId, id);
    EXPECT_EQ(record.driverKeyPath, L"SYSTEM\\CurrentControlSet\\Control\\Class\\{4d36e968}\\0");
    EXPECT_EQ(record.releaseVersion, L"24.20.11-240611a");
    EXPECT_EQ(record.releaseBase, L"24.20.11");
    EXPECT_EQ(record.driverFolder, folder_ / L"pack");
    EXPECT_EQ(record.description, L"Marlin 5");
    EXPECT_EQ(record.problemCode, 0u);
    EXPECT_THAT(log_.Lines(), ElementsAre(Enumerating(id), Found(package, L"24.20.11-240611a"),
                                          L"\tFound driver matching active driver"));
    EXPECT_THAT(devices_.calls, ElementsAre(L"open", L"drivers of " + id, L"close"));
}

// Proves: No device at all => an empty list, without a line
TEST_F(DriverEnumeration, GivesAnEmptyListWithoutALineWhenThereIsNoDevice)
{
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_THAT(devices_.calls, ElementsAre(L"open", L"close"));
}

// Proves: The list of devices cannot be opened => logged with the code as HRESULT and its text; empty list
// Proves: The first device has no id => logged; an empty id, so it is not the maker's
TEST_F(DriverEnumeration, LogsCodesOfSetupApiAsHresults)
{
    struct
    {
        DWORD code, result;
        const wchar_t* decimal;
    } const codes[] = {{1, 0x80070001, L"-2147024895"},          {5, 0x80070005, L"-2147024891"},
                       {0x0001000D, 0x8007000D, L"-2147024883"}, {0, 0, L"0"},
                       {0xE000020B, 0x800F020B, L"-2146500085"}, {0xE0000100, 0x800F0100, L"-2146500352"},
                       {0xFFFF0203, 0x800F0203, L"-2146500093"}, {0x80070005, 0x80070005, L"-2147024891"},
                       {0xC0000005, 0xC0000005, L"-1073741819"}, {0x60000001, 0x80070001, L"-2147024895"}};
    AddAdapter(kId, L"1");
    for (const auto& row : codes)
    {
        const std::wstring end = row.decimal + (L"  " + FormatSystemMessage(row.result));
        {
            SUBSTITUTE(SetupDiGetDeviceInstanceIdW) id([&](auto...) { return FailWith(row.code); });
            EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
            EXPECT_THAT(log_.Take(), ElementsAre(L"Failed to call SetupDiGetDeviceInstanceId " + end,
                                                 L"[Marlin 5] - [] is not an Tavik Display Adapter."));
        }
        devices_.calls.clear();
        SUBSTITUTE(SetupDiGetClassDevsW)
        open([&](auto...) -> HDEVINFO { return FailWith(row.code, INVALID_HANDLE_VALUE); });
        EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
        EXPECT_THAT(log_.Take(), ElementsAre(L"Failed to call SetupDiGetClassDevs " + end));
        EXPECT_THAT(devices_.calls, IsEmpty());  // nothing to close
    }
}

// Proves: A later device has no id => logged; the id of the device before is used
TEST_F(DriverEnumeration, UsesTheIdOfTheDeviceBeforeWhenAnIdCannotBeRead)
{
    AddAdapter(kId, L"2-x");
    AddAdapter(L"never read", L"1-x").idError = ERROR_ACCESS_DENIED;
    const DisplayDriverInfo second = EnumerateDisplayDrivers().back();
    EXPECT_EQ(second.instanceId, kId);
    EXPECT_EQ(second.releaseBase, L"1");
    EXPECT_THAT(log_.Lines(), ElementsAre(Enumerating(kId),
                                          L"Failed to call SetupDiGetDeviceInstanceId -2147024891  " +
                                              FormatSystemMessage(0x80070005),
                                          Enumerating(kId)));
}

// Proves: An id is shorter than the one before => it is read up to its own end
TEST_F(DriverEnumeration, ReadsAShorterIdAfterALongerOneUpToItsEnd)
{
    AddAdapter(L"PCI\\VEN_1E7D&DEV_0001&SUBSYS_LONG", L"2");
    AddAdapter(L"PCI\\VEN_1E7C", L"1");
    EXPECT_EQ(EnumerateDisplayDrivers().back().instanceId, L"PCI\\VEN_1E7C");
}

// Proves: Neither of the maker's two vendor ids in the id => one line for each such device, left out
// Proves: A vendor id anywhere, in lower case => it is the maker's
TEST_F(DriverEnumeration, ListsDevicesWithAVendorIdAnywhereInAnyCase)
{
    const std::pair<std::wstring, bool> ids[] = {{L"PCI\\VEN_1E7D&DEV_1", true},     {L"PCI\\VEN_1E7C&DEV_1", true},
                                                 {L"pci\\ven_1e7d&dev_1", true},     {L"pci\\ven_1e7c&dev_1", true},
                                                 {L"ROOT\\X&VEN_1E7D", true},        {L"PCI\\VEN_1E7E&DEV_1", false},
                                                 {L"PCI\\VEN_8086&DEV_1E7D", false}, {L"", false}};
    AddAdapter(kId, L"1");
    for (const auto& [id, isListed] : ids)
    {
        devices_.devices.front().id = id;
        EXPECT_EQ(EnumerateDisplayDrivers().size(), isListed ? 1u : 0u);
        EXPECT_THAT(
            log_.Take(),
            ElementsAre(isListed ? Enumerating(id) : L"[Marlin 5] - [" + id + L"] is not an Tavik Display Adapter."));
    }
}

// Proves: "Microsoft" in the description => left out without a line, although the vendor matches
// Proves: A description shorter than nine characters, or in other letter case => never left out for that
// Proves: The description cannot be read => nothing is logged, it is empty, the adapter is kept
TEST_F(DriverEnumeration, LeavesOutTheGenericDriverByItsDescriptionWithoutALine)
{
    const std::pair<std::optional<std::wstring>, bool> descriptions[] = {{L"Microsoft Basic Display Adapter", false},
                                                                         {L"Adapter (Microsoft Corporation)", false},
                                                                         {L"Microsoft", false},
                                                                         {L"Microsof", true},
                                                                         {L"microsoft basic display", true},
                                                                         {L"MICROSOFT DISPLAY", true},
                                                                         {L"", true},
                                                                         {std::nullopt, true}};
    AddAdapter(kId, L"1");
    for (const auto& [description, isListed] : descriptions)
    {
        devices_.devices.front().description = description;
        const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
        EXPECT_EQ(records.size(), isListed ? 1u : 0u);
        EXPECT_TRUE(records.empty() || records.front().description == description.value_or(L""));
        EXPECT_THAT(log_.Take(), ElementsAre(Enumerating(kId, description.value_or(L""))));
    }
}

// Proves: The driver key cannot be read => logged, left out
// Proves: The driver key cannot be opened, or has no readable release => logged with the reason, left out
TEST_F(DriverEnumeration, LeavesOutAnAdapterWithoutAReadableReleaseAndLogsTheReason)
{
    AddAdapter(kId, L"1").driverKeyError = 0xE0000219;
    for (const wchar_t* key : {L"missing", L"without value", L"number"})
    {
        AddAdapter(kId, L"1").driverKey = key;
    }
    registry_.CreateKey(std::wstring(kClassKeys) + L"without value");
    registry_.SetValue(std::wstring(kClassKeys) + L"number", L"ReleaseVersion", REG_DWORD, {1, 0, 0, 0});
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    const auto line = [](const std::string& message, int code) {
        const std::string reason = message + ": " + std::system_category().message(code);
        return L"Unable to find ReleaseVersion regkey for [Marlin 5] - [PCI\\VEN_1E7D]. " +
               std::wstring(reason.begin(), reason.end());
    };
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(L"Failed to get SPDRP_DRIVER for PCI\\VEN_1E7D: -2146500071  " + FormatSystemMessage(0x800F0219),
                    line("Unable to open registry key", 2), line("Unable to get registry value", 2),
                    line("Unable to get registry value", 1630)));

    SUBSTITUTE(RegGetValueW) get([](auto...) -> LSTATUS { throw std::bad_alloc(); });  // like any standard exception
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_EQ(log_.Lines().back(),
              L"Unable to find ReleaseVersion regkey for [Marlin 5] - [PCI\\VEN_1E7D]. std::bad_alloc");
}

// Proves: A release without a hyphen, or one that begins with it => the whole release; an empty one
TEST_F(DriverEnumeration, EndsTheBaseOfAReleaseBeforeItsFirstHyphen)
{
    for (const auto& [version, base] : {std::pair(L"24.20.11a-240611-1", L"24.20.11a"), std::pair(L"24.20", L"24.20"),
                                        std::pair(L"-24.20", L""), std::pair(L"", L""), std::pair(L" 24 - x", L" 24 ")})
    {
        devices_.devices.clear();
        AddAdapter(kId, version);
        const DisplayDriverInfo record = TheAdapter();
        EXPECT_EQ(record.releaseVersion, version);
        EXPECT_EQ(record.releaseBase, base);
    }
}

// Proves: Device Manager reports a problem => logged, the adapter is kept with the code
// Proves: The problem code cannot be read => logged with the code as it is (not as HRESULT), 0, the adapter is kept
TEST_F(DriverEnumeration, KeepsTheProblemCodeAndLogsItOrTheRawError)
{
    AddAdapter(kId, L"1").problem = 43;
    EXPECT_EQ(TheAdapter().problemCode, 43u);
    EXPECT_THAT(log_.Take(), ElementsAre(L"Device has CM_PROB_Xxx code 43", Enumerating(kId)));
    devices_.devices.front().problemError = ERROR_NOT_FOUND;
    EXPECT_EQ(TheAdapter().problemCode, 0u);
    EXPECT_THAT(log_.Take(),
                ElementsAre(L"Unable to get DEVPKEY_Device_ProblemCode property:  1168 " + FormatSystemMessage(1168),
                            Enumerating(kId)));
}

// Proves: The list of drivers cannot be built, a detail cannot be read => not noticed, the calls after it decide
TEST_F(DriverEnumeration, AsksForADetailEvenWithoutAListOrWhenItsSizeIsUnknown)
{
    const FakeDriverPackage package = MakePackage(L"pack", "1");
    AddAdapter(kId, L"1").packages = {package};
    devices_.devices.front().buildError = ERROR_ACCESS_DENIED;
    int calls = 0;
    SUBSTITUTE(SetupDiGetDriverInfoDetailW)
    detail([&](HDEVINFO, SP_DEVINFO_DATA*, SP_DRVINFO_DATA_W*, SP_DRVINFO_DETAIL_DATA_W* data, DWORD bytes, DWORD*) {
        if (++calls == 2)
        {
            EXPECT_GE(bytes, 1584u);
            EXPECT_EQ(data->cbSize, 1584u);
            wcscpy(data->InfFileName, package.infName.c_str());
        }
        return FailWith(ERROR_NOT_SUPPORTED);  // neither result matters
    });
    EXPECT_EQ(TheAdapter().driverFolder, folder_ / L"pack");
    EXPECT_EQ(calls, 2);
}

// Proves: A package's release is the active one, in any letter case => logged, its folder is taken; the last such package wins
TEST_F(DriverEnumeration, TakesTheLastOfSeveralMatchingPackagesInAnyLetterCase)
{
    const std::vector<FakeDriverPackage> packages = {MakePackage(L"first", "24.20-a"),
                                                     MakePackage(L"second", "24.20-A"), MakePackage(L"third", "24.20")};
    AddAdapter(kId, L"24.20-a").packages = packages;
    EXPECT_EQ(TheAdapter().driverFolder, folder_ / L"second");
    EXPECT_THAT(log_.Lines(), ElementsAre(Enumerating(kId), Found(packages[0], L"24.20-a"),
                                          L"\tFound driver matching active driver", Found(packages[1], L"24.20-A"),
                                          L"\tFound driver matching active driver", Found(packages[2], L"24.20")));
}

// Proves: No package carries the release => only the "Found driver" lines; the folder is empty, the adapter kept
// Proves: The driver store does not know a package => the path of the package before is used, even across adapters
TEST_F(DriverEnumeration, TakesAPackageThatTheDriverStoreDoesNotKnowForTheOneBefore)
{
    const FakeDriverPackage known = MakePackage(L"known", "2");
    const FakeDriverPackage unknown = {L"unknown.inf", L""};
    AddAdapter(L"PCI\\VEN_1E7D&1", L"3").packages = {known, unknown};
    AddAdapter(L"PCI\\VEN_1E7D&2", L"2").packages = {unknown};
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    EXPECT_EQ(records.front().driverFolder, L"");
    EXPECT_EQ(records.back().driverFolder, folder_ / L"known");
    EXPECT_THAT(log_.Lines(), ElementsAre(Enumerating(L"PCI\\VEN_1E7D&1"), Found(known, L"2"), Found(known, L"2"),
                                          Enumerating(L"PCI\\VEN_1E7D&2"), Found(known, L"2"),
                                          L"\tFound driver matching active driver"));
}

// Proves: An empty release => matches a package without one
// Proves: The path of the INF has doubled separators => the folder has none at its end
TEST_F(DriverEnumeration, MatchesAnEmptyReleaseAndGivesTheFolderWithoutSeparatorsAtItsEnd)
{
    folder_.CreateFolder(L"pack");
    folder_.WriteBytes(L"pack\\x.inf", "[Version]\r\nSignature=\"$Windows NT$\"\r\n");
    AddAdapter(kId, L"").packages = {{L"a.inf", folder_ / L"pack/\\x.inf"}};
    EXPECT_EQ(TheAdapter().driverFolder, folder_ / L"pack");
}

// Proves: Releases 23.10.2 and 23.9.1 => 23.9.1 comes first: characters are compared, not numbers; a longer release before its own beginning
// Proves: Equal releases => keep the system's order
TEST_F(DriverEnumeration, OrdersByUtf16UnitsOfTheReleaseBaseDescending)
{
    // Releases as the system lists them, and their places in the product's order.
    const std::pair<std::vector<std::wstring>, std::vector<int>> orders[] = {
        {{L"23.10.2-a", L"23.9.1-b"}, {1, 0}},
        {{L"24", L"24.20", L"", L"a", L"Z", L"\U0001f600", L"\uff21"}, {6, 5, 3, 4, 1, 0, 2}},
        {{L"5-a", L"7-a", L"5-c", L"7-b", L"5-b"}, {1, 3, 0, 2, 4}}};
    for (const auto& [releases, expected] : orders)
    {
        devices_.devices.clear();
        for (const std::wstring& release : releases)
        {
            AddAdapter(kId, release);
        }
        std::vector<int> places;
        for (const DisplayDriverInfo& record : EnumerateDisplayDrivers())
        {
            places.push_back(std::stoi(record.driverKeyPath.substr(record.driverKeyPath.rfind(L'\\') + 1)));
        }
        EXPECT_EQ(places, expected);
    }
}

// Proves: Two adapters one after the other => nothing but the two shared buffers goes from one to the next
TEST_F(DriverEnumeration, TakesNothingOfOneDeviceIntoTheNext)
{
    FakeDevice& first = AddAdapter(L"PCI\\VEN_1E7D&1", L"2-a");
    first.problem = 10;
    first.packages = {MakePackage(L"pack", "2-a")};
    AddAdapter(L"PCI\\VEN_1E7D&2", L"1").description.reset();
    const DisplayDriverInfo second = EnumerateDisplayDrivers().back();
    EXPECT_EQ(second.description, L"");
    EXPECT_EQ(second.driverFolder, L"");
    EXPECT_EQ(second.problemCode, 0u);
    EXPECT_EQ(second.releaseVersion, L"1");
}

// Proves: An exception while an INF is read => it passes through, the device list is freed
TEST_F(DriverEnumeration, ClosesItsListWhenAnExceptionPassesThrough)
{
    AddAdapter(kId, L"1").packages = {MakePackage(L"pack", "1")};
    SUBSTITUTE(SetupFindFirstLineW) first([](auto...) -> BOOL { throw std::bad_alloc(); });
    EXPECT_THROW(EnumerateDisplayDrivers(), std::bad_alloc);
    EXPECT_EQ(devices_.calls.back(), L"close");
}
}  // namespace
}  // namespace repair
