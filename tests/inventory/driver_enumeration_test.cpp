#include "inventory/driver_enumeration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <new>
#include <string>
#include <vector>

#include "base/system_message.h"
#include "support/fake_devices.h"
#include "support/key_watch.h"
#include "support/log_capture.h"
#include "support/temporary_folder.h"
#include "support/with_param.h"

IMPORTED(RegGetValueW, SetupFindFirstLineW)

using testing::ElementsAre;
using testing::IsEmpty;

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

// A code of SetupAPI's and how the log shows it.
struct SetupCode
{
    DWORD code;
    DWORD result;
    const wchar_t* decimal;
};

class SetupApiCode : public DriverEnumeration, public testing::WithParamInterface<SetupCode>
{
protected:
    static std::wstring Line(const std::wstring& start)
    {
        return start + GetParam().decimal + L"  " + FormatSystemMessage(GetParam().result);
    }
};

// Proves: The list of devices cannot be opened => logged with the code as HRESULT and its text; empty list
TEST_P(SetupApiCode, OfAListThatCannotBeOpenedIsLoggedAsAnHresult)
{
    SUBSTITUTE(SetupDiGetClassDevsW)
    open([](auto...) -> HDEVINFO { return FailWith(GetParam().code, INVALID_HANDLE_VALUE); });
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_THAT(log_.Lines(), ElementsAre(Line(L"Failed to call SetupDiGetClassDevs ")));
    EXPECT_THAT(devices_.calls, IsEmpty());  // nothing to close
}

// Proves: The first device has no id => logged; an empty id, so it is not the maker's
TEST_P(SetupApiCode, OfAnIdThatCannotBeReadIsLoggedAsAnHresult)
{
    AddAdapter(kId, L"1");
    SUBSTITUTE(SetupDiGetDeviceInstanceIdW) id([](auto...) { return FailWith(GetParam().code); });
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_THAT(log_.Lines(), ElementsAre(Line(L"Failed to call SetupDiGetDeviceInstanceId "),
                                          L"[Marlin 5] - [] is not an Tavik Display Adapter."));
}

INSTANTIATE_TEST_SUITE_P(All, SetupApiCode,
                         testing::Values(SetupCode{5, 0x80070005, L"-2147024891"},
                                         SetupCode{0x0001000D, 0x8007000D, L"-2147024883"}, SetupCode{0, 0, L"0"},
                                         SetupCode{0xE000020B, 0x800F020B, L"-2146500085"},
                                         SetupCode{0xE0000100, 0x800F0100, L"-2146500352"},
                                         SetupCode{0xFFFF0203, 0x800F0203, L"-2146500093"},
                                         SetupCode{0x80070005, 0x80070005, L"-2147024891"},
                                         SetupCode{0xC0000005, 0xC0000005, L"-1073741819"},
                                         SetupCode{0x60000001, 0x80070001, L"-2147024895"}));

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

// Proves: The description cannot be read => nothing is logged, it is empty, the adapter is kept
TEST_F(DriverEnumeration, KeepsAnAdapterWithoutADescription)
{
    AddAdapter(kId, L"1").description.reset();
    EXPECT_EQ(TheAdapter().description, L"");
    EXPECT_THAT(log_.Lines(), ElementsAre(Enumerating(kId, L"")));
}

// A device's id or description, and whether it is listed.
struct Listed
{
    const wchar_t* text;
    bool isListed;
};

using AdapterVendor = WithParam<DriverEnumeration, Listed>;

// Proves: Neither of the maker's two vendor ids in the id => one line for each such device, left out
// Proves: A vendor id anywhere, in lower case => it is the maker's
TEST_P(AdapterVendor, IsFoundAnywhereInTheInstanceIdInAnyCase)
{
    const std::wstring id = GetParam().text;
    AddAdapter(id, L"1");
    EXPECT_EQ(EnumerateDisplayDrivers().size(), GetParam().isListed ? 1u : 0u);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(GetParam().isListed ? Enumerating(id)
                                                : L"[Marlin 5] - [" + id + L"] is not an Tavik Display Adapter."));
}

INSTANTIATE_TEST_SUITE_P(All, AdapterVendor,
                         testing::Values(Listed{L"PCI\\VEN_1E7D&DEV_1", true}, Listed{L"PCI\\VEN_1E7C&DEV_1", true},
                                         Listed{L"pci\\ven_1e7d&dev_1", true}, Listed{L"pci\\ven_1e7c&dev_1", true},
                                         Listed{L"ROOT\\X&VEN_1E7D", true}, Listed{L"PCI\\VEN_1E7E&DEV_1", false},
                                         Listed{L"PCI\\VEN_8086&DEV_1E7D", false}, Listed{L"", false}));

using AdapterDescription = WithParam<DriverEnumeration, Listed>;

// Proves: "Microsoft" in the description => left out without a line, although the vendor matches
// Proves: A description shorter than nine characters, or in other letter case => never left out for that
TEST_P(AdapterDescription, OfTheGenericDriverLeavesTheAdapterOutWithoutALine)
{
    AddAdapter(kId, L"1").description = GetParam().text;
    EXPECT_EQ(EnumerateDisplayDrivers().size(), GetParam().isListed ? 1u : 0u);
    EXPECT_THAT(log_.Lines(), ElementsAre(Enumerating(kId, GetParam().text)));
}

INSTANTIATE_TEST_SUITE_P(All, AdapterDescription,
                         testing::Values(Listed{L"Microsoft Basic Display Adapter", false},
                                         Listed{L"Adapter (Microsoft Corporation)", false}, Listed{L"Microsoft", false},
                                         Listed{L"Microsof", true}, Listed{L"microsoft basic display", true},
                                         Listed{L"MICROSOFT DISPLAY", true}, Listed{L"", true}));

// Proves: The driver key cannot be read => logged, left out
TEST_F(DriverEnumeration, LeavesOutAnAdapterWithoutADriverKey)
{
    AddAdapter(kId, L"1").driverKeyError = 0xE0000219;
    AddAdapter(L"PCI\\VEN_1E7C", L"2");
    EXPECT_EQ(TheAdapter().releaseBase, L"2");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Failed to get SPDRP_DRIVER for PCI\\VEN_1E7D: -2146500071  " +
                                              FormatSystemMessage(0x800F0219),
                                          Enumerating(L"PCI\\VEN_1E7C")));
}

// Proves: The driver key cannot be opened, or has no readable release => logged with the reason, left out
TEST_F(DriverEnumeration, LeavesOutAnAdapterWithoutAReadableReleaseAndLogsTheReason)
{
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
    EXPECT_THAT(log_.Lines(),
                ElementsAre(line("Unable to open registry key", 2), line("Unable to get registry value", 2),
                            line("Unable to get registry value", 1630)));
}

TEST_F(DriverEnumeration, LeavesOutAnAdapterWhoseReleaseCannotBeReadForAnyStandardException)
{
    AddAdapter(kId, L"1");
    SUBSTITUTE(RegGetValueW) get([](auto...) -> LSTATUS { throw std::bad_alloc(); });
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Unable to find ReleaseVersion regkey for [Marlin 5] - [PCI\\VEN_1E7D]. "
                                          L"std::bad_alloc"));
}

// Proves: The driver key is opened => for reading, and closed
TEST_F(DriverEnumeration, OpensTheDriverKeyForReadingAndClosesIt)
{
    AddAdapter(kId, L"1");
    const KeyWatch watch(std::wstring(kClassKeys) + L"{4d36e968}\\0");
    TheAdapter();
    EXPECT_EQ(watch.opened, 1);
    EXPECT_EQ(watch.closed, 1);
}

struct Release
{
    const wchar_t* version;
    const wchar_t* base;
};

using AdapterRelease = WithParam<DriverEnumeration, Release>;

// Proves: A release without a hyphen, or one that begins with it => the whole release; an empty one
TEST_P(AdapterRelease, HasABaseThatEndsBeforeTheFirstHyphen)
{
    AddAdapter(kId, GetParam().version);
    const DisplayDriverInfo record = TheAdapter();
    EXPECT_EQ(record.releaseVersion, GetParam().version);
    EXPECT_EQ(record.releaseBase, GetParam().base);
}

INSTANTIATE_TEST_SUITE_P(All, AdapterRelease,
                         testing::Values(Release{L"24.20.11-240611a-1", L"24.20.11"}, Release{L"24.20", L"24.20"},
                                         Release{L"-24.20", L""}, Release{L"", L""}, Release{L" 24 - x", L" 24 "}));

// Proves: Device Manager reports a problem => logged, the adapter is kept with the code
TEST_F(DriverEnumeration, LogsAndKeepsTheProblemCode)
{
    AddAdapter(kId, L"1").problem = 43;
    EXPECT_EQ(TheAdapter().problemCode, 43u);
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Device has CM_PROB_Xxx code 43", Enumerating(kId)));
}

// Proves: The problem code cannot be read => logged with the code as it is (not as HRESULT), 0, the adapter is kept
TEST_F(DriverEnumeration, LogsTheRawErrorOfAProblemCodeThatCannotBeRead)
{
    AddAdapter(kId, L"1").problemError = ERROR_NOT_FOUND;
    EXPECT_EQ(TheAdapter().problemCode, 0u);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"Unable to get DEVPKEY_Device_ProblemCode property:  1168 " + FormatSystemMessage(1168),
                            Enumerating(kId)));
}

// Proves: The list of drivers cannot be built, a detail cannot be read => not noticed, the calls after it decide
TEST_F(DriverEnumeration, IgnoresADriverListThatCannotBeBuilt)
{
    FakeDevice& device = AddAdapter(kId, L"1");
    device.buildError = ERROR_ACCESS_DENIED;
    device.packages = {MakePackage(L"pack", "1")};
    EXPECT_EQ(TheAdapter().driverFolder, folder_ / L"pack");
}

TEST_F(DriverEnumeration, AsksForADetailEvenWhenItsSizeIsUnknown)
{
    const FakeDriverPackage package = MakePackage(L"pack", "1");
    AddAdapter(kId, L"1").packages = {package};
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

// Proves: No package carries the release => only the "Found driver" lines; the folder is empty, the adapter kept
TEST_F(DriverEnumeration, KeepsAnAdapterWithoutAMatchingPackageWithAnEmptyFolder)
{
    const FakeDriverPackage other = MakePackage(L"other", "24.20-a");
    AddAdapter(kId, L"24.20-b").packages = {other};
    EXPECT_EQ(TheAdapter().driverFolder, L"");
    EXPECT_THAT(log_.Lines(), ElementsAre(Enumerating(kId), Found(other, L"24.20-a")));
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
TEST_F(DriverEnumeration, MatchesAnEmptyReleaseWithAPackageWithoutOne)
{
    folder_.CreateFolder(L"pack");
    AddAdapter(kId, L"").packages = {
        {L"a.inf", folder_.WriteBytes(L"pack\\x.inf", "[Version]\r\nSignature=\"$Windows NT$\"\r\n")}};
    EXPECT_EQ(TheAdapter().driverFolder, folder_ / L"pack");
}

// Proves: The path of the INF has doubled separators => the folder has none at its end
TEST_F(DriverEnumeration, GivesTheFolderWithoutSeparatorsAtItsEnd)
{
    MakePackage(L"pack", "1");
    AddAdapter(kId, L"1").packages = {{L"a.inf", folder_ / L"pack/\\x.inf"}};
    EXPECT_EQ(TheAdapter().driverFolder, folder_ / L"pack");
}

// Releases of the adapters as the system lists them, and their places in the product's order.
struct Order
{
    std::vector<std::wstring> releases;
    std::vector<int> places;
};

using AdapterOrder = WithParam<DriverEnumeration, Order>;

// Proves: Releases 23.10.2 and 23.9.1 => 23.9.1 comes first: characters are compared, not numbers; a longer release before its own beginning
// Proves: Equal releases => keep the system's order
TEST_P(AdapterOrder, IsByUtf16UnitsOfTheReleaseBaseDescending)
{
    for (const std::wstring& release : GetParam().releases)
    {
        AddAdapter(kId, release);
    }
    std::vector<int> places;
    for (const DisplayDriverInfo& record : EnumerateDisplayDrivers())
    {
        places.push_back(std::stoi(record.driverKeyPath.substr(record.driverKeyPath.rfind(L'\\') + 1)));
    }
    EXPECT_EQ(places, GetParam().places);
}

INSTANTIATE_TEST_SUITE_P(All, AdapterOrder,
                         testing::Values(Order{{L"23.10.2-a", L"23.9.1-b"}, {1, 0}},
                                         Order{{L"24", L"24.20", L"", L"a", L"Z", L"\U0001f600", L"\uff21"},
                                               {6, 5, 3, 4, 1, 0, 2}},
                                         Order{{L"5-a", L"7-a", L"5-c", L"7-b", L"5-b"}, {1, 3, 0, 2, 4}}));

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

// Proves: An exception while an INF is read => it passes through, the device list is given back
TEST_F(DriverEnumeration, ClosesItsListWhenAnExceptionPassesThrough)
{
    AddAdapter(kId, L"1").packages = {MakePackage(L"pack", "1")};
    SUBSTITUTE(SetupFindFirstLineW) first([](auto...) -> BOOL { throw std::bad_alloc(); });
    EXPECT_THROW(EnumerateDisplayDrivers(), std::bad_alloc);
    EXPECT_EQ(devices_.calls.back(), L"close");
}
}  // namespace
}  // namespace repair
