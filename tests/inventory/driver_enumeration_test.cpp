#include "inventory/driver_enumeration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <new>
#include <string>
#include <vector>

#include "base/system_message.h"
#include "inventory/made_up_devices.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/temporary_folder.h"

IMPORTED(RegCloseKey)
IMPORTED(RegGetValueW)
IMPORTED(RegOpenKeyExW)

using testing::ElementsAre;
using testing::IsEmpty;

namespace repair
{
namespace
{
constexpr wchar_t kClassKeys[] = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";

class DisplayDrivers : public testing::Test
{
protected:
    // An adapter of the maker whose active driver has the release.
    void AddAdapter(const std::wstring& id, const std::wstring& release)
    {
        const std::wstring key = L"{4d36e968}\\" + std::to_wstring(machine_.devices.size());
        MachineRegistry::SetString(kClassKeys + key, L"ReleaseVersion", release);
        machine_.devices.push_back({id, key});
    }

    MadeUpDevice& Last() { return machine_.devices.back(); }

    std::vector<std::wstring> Bases() const
    {
        std::vector<std::wstring> bases;
        for (const DisplayDriverInfo& record : EnumerateDisplayDrivers())
        {
            bases.push_back(record.releaseBase);
        }
        return bases;
    }

    // A package in a folder of its own whose INF has the release.
    MadeUpPackage MakePackage(const std::wstring& name, const std::string& release) const
    {
        folder_.CreateFolder(name);
        return {name + L".inf", folder_.WriteBytes(name + L"\\x.inf",
                                                   "[Version]\r\nSignature=\"$Windows NT$\"\r\n[S]\r\n"
                                                   "HKR,,ReleaseVersion,,\"" +
                                                       release + "\"\r\n")};
    }

    MachineRegistry registry_;
    TemporaryFolder folder_;
    MadeUpDevices machine_;
};

// Proves: An adapter of the maker with its package => one record: id, driver key, release, release up to the first hyphen, package folder, description, problem code; the calls have their parameters
TEST_F(DisplayDrivers, RecordAndLogOfAnAdapterWithItsPackage)
{
    AddAdapter(L"PCI\\VEN_1E7D&DEV_0042\\4&1", L"24.20.11-240611a");
    const MadeUpPackage package = MakePackage(L"pack", "24.20.11-240611a");
    Last().packages = {package};
    LogCapture log;
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    ASSERT_EQ(records.size(), 1u);
    const DisplayDriverInfo& record = records.front();
    EXPECT_EQ(record.instanceId, L"PCI\\VEN_1E7D&DEV_0042\\4&1");
    EXPECT_EQ(record.driverKeyPath, L"SYSTEM\\CurrentControlSet\\Control\\Class\\{4d36e968}\\0");
    EXPECT_EQ(record.releaseVersion, L"24.20.11-240611a");
    EXPECT_EQ(record.releaseBase, L"24.20.11");
    EXPECT_EQ(record.driverFolder, folder_ / L"pack");
    EXPECT_EQ(record.description, L"Marlin 5");
    EXPECT_EQ(record.problemCode, 0u);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Enumerating installed drivers for PCI\\VEN_1E7D&DEV_0042\\4&1 - Marlin 5",
                                         L"Found driver " + package.storePath + L". Version [24.20.11-240611a]",
                                         L"\tFound driver matching active driver"));
    EXPECT_THAT(machine_.calls, ElementsAre(L"open", L"drivers of PCI\\VEN_1E7D&DEV_0042\\4&1", L"close"));
}

// Proves: No device at all => an empty list, without a line
TEST_F(DisplayDrivers, NoDeviceIsAnEmptyListWithoutALine)
{
    LogCapture log;
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_THAT(machine_.calls, ElementsAre(L"open", L"close"));
}

// A code of SetupAPI's and how the log shows it.
struct SetupCode
{
    DWORD code;
    DWORD result;
    const wchar_t* decimal;
};

class DisplayDriversSetupCode : public DisplayDrivers, public testing::WithParamInterface<SetupCode>
{
};

// Proves: The list of devices cannot be opened => logged with the code as HRESULT and its text; empty list
// Proves: The first device has no id => logged; an empty id, so it is not the maker's
TEST_P(DisplayDriversSetupCode, IsAnHresultInTheLog)
{
    const auto expected = [](const std::wstring& start) {
        return start + GetParam().decimal + L"  " + FormatSystemMessage(GetParam().result);
    };
    {
        SUBSTITUTE(SetupDiGetClassDevsW)
        open([](auto...) -> HDEVINFO { return FailWith(GetParam().code, INVALID_HANDLE_VALUE); });
        LogCapture log;
        EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
        EXPECT_THAT(log.Lines(), ElementsAre(expected(L"Failed to call SetupDiGetClassDevs ")));
        EXPECT_THAT(machine_.calls, IsEmpty());  // nothing to close
    }
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    SUBSTITUTE(SetupDiGetDeviceInstanceIdW) id([](auto...) { return FailWith(GetParam().code); });
    LogCapture log;
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(expected(L"Failed to call SetupDiGetDeviceInstanceId "),
                                         L"[Marlin 5] - [] is not an Tavik Display Adapter."));
}

INSTANTIATE_TEST_SUITE_P(All, DisplayDriversSetupCode,
                         testing::Values(SetupCode{5, 0x80070005, L"-2147024891"},
                                         SetupCode{0x0001000D, 0x8007000D, L"-2147024883"}, SetupCode{0, 0, L"0"},
                                         SetupCode{0xE000020B, 0x800F020B, L"-2146500085"},
                                         SetupCode{0xE0000100, 0x800F0100, L"-2146500352"},
                                         SetupCode{0xFFFF0203, 0x800F0203, L"-2146500093"},
                                         SetupCode{0x80070005, 0x80070005, L"-2147024891"},
                                         SetupCode{0xC0000005, 0xC0000005, L"-1073741819"},
                                         SetupCode{0x60000001, 0x80070001, L"-2147024895"}));

// Proves: A later device has no id => logged; the id of the device before is used
TEST_F(DisplayDrivers, IdThatCannotBeReadIsThatOfTheDeviceBefore)
{
    AddAdapter(L"PCI\\VEN_1E7D&DEV_1", L"2-x");
    AddAdapter(L"never read", L"1-x");
    Last().idError = ERROR_ACCESS_DENIED;
    LogCapture log;
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records.back().instanceId, L"PCI\\VEN_1E7D&DEV_1");
    EXPECT_EQ(records.back().releaseBase, L"1");
    EXPECT_THAT(log.Lines(), ElementsAre(L"Enumerating installed drivers for PCI\\VEN_1E7D&DEV_1 - Marlin 5",
                                         L"Failed to call SetupDiGetDeviceInstanceId -2147024891  " +
                                             FormatSystemMessage(0x80070005),
                                         L"Enumerating installed drivers for PCI\\VEN_1E7D&DEV_1 - Marlin 5"));
}

// Proves: An id is shorter than the one before => it ends where it ends
TEST_F(DisplayDrivers, ShorterIdAfterALongerOneIsReadUpToItsEnd)
{
    AddAdapter(L"PCI\\VEN_1E7D&DEV_0001&SUBSYS_LONG", L"2");
    AddAdapter(L"PCI\\VEN_1E7C", L"1");
    EXPECT_EQ(EnumerateDisplayDrivers().back().instanceId, L"PCI\\VEN_1E7C");
}

// Proves: The description cannot be read => nothing is logged, it is empty, the adapter is kept
TEST_F(DisplayDrivers, WithoutADescriptionTheAdapterIsKeptAndNothingIsLogged)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    Last().description.reset();
    LogCapture log;
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.front().description, L"");
    EXPECT_THAT(log.Lines(), ElementsAre(L"Enumerating installed drivers for PCI\\VEN_1E7D - "));
}

struct InstanceId
{
    const wchar_t* id;
    bool isMakers;
};

class DisplayDriversVendor : public DisplayDrivers, public testing::WithParamInterface<InstanceId>
{
};

// Proves: Neither of the maker's two vendor ids in the id => one line for each such device, left out
// Proves: A vendor id anywhere, in lower case => it is the maker's
TEST_P(DisplayDriversVendor, StandsInTheInstanceIdInAnyCase)
{
    AddAdapter(GetParam().id, L"1");
    Last().description = L"Card";
    LogCapture log;
    EXPECT_EQ(EnumerateDisplayDrivers().size(), GetParam().isMakers ? 1u : 0u);
    const std::wstring id = GetParam().id;
    EXPECT_THAT(log.Lines(),
                ElementsAre(GetParam().isMakers ? L"Enumerating installed drivers for " + id + L" - Card"
                                                : L"[Card] - [" + id + L"] is not an Tavik Display Adapter."));
}

INSTANTIATE_TEST_SUITE_P(
    All, DisplayDriversVendor,
    testing::Values(InstanceId{L"PCI\\VEN_1E7D&DEV_1", true}, InstanceId{L"PCI\\VEN_1E7C&DEV_1", true},
                    InstanceId{L"pci\\ven_1e7d&dev_1", true}, InstanceId{L"pci\\ven_1e7c&dev_1", true},
                    InstanceId{L"ROOT\\X&VEN_1E7D", true}, InstanceId{L"PCI\\VEN_1E7E&DEV_1", false},
                    InstanceId{L"PCI\\VEN_8086&DEV_1E7D", false}, InstanceId{L"", false}));

// Proves: The driver key cannot be read => logged, left out
TEST_F(DisplayDrivers, WithoutADriverKeyItIsSkipped)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    Last().driverKeyError = 0xE0000219;
    AddAdapter(L"PCI\\VEN_1E7C", L"2");
    LogCapture log;
    EXPECT_THAT(Bases(), ElementsAre(L"2"));
    EXPECT_THAT(log.Lines(), ElementsAre(L"Failed to get SPDRP_DRIVER for PCI\\VEN_1E7D: -2146500071  " +
                                             FormatSystemMessage(0x800F0219),
                                         L"Enumerating installed drivers for PCI\\VEN_1E7C - Marlin 5"));
}

std::wstring Wide(const std::string& text)
{
    return std::wstring(text.begin(), text.end());
}

// Proves: The driver key cannot be opened, or has no readable release => logged with the reason, left out
TEST_F(DisplayDrivers, WithoutAReadableReleaseItIsSkippedWithTheReason)
{
    AddAdapter(L"PCI\\VEN_1E7D&1", L"1");
    Last().driverKey = L"missing";
    AddAdapter(L"PCI\\VEN_1E7D&2", L"1");
    Last().driverKey = L"without value";
    registry_.CreateKey(std::wstring(kClassKeys) + L"without value");
    AddAdapter(L"PCI\\VEN_1E7D&3", L"1");
    Last().driverKey = L"number";
    registry_.SetValue(std::wstring(kClassKeys) + L"number", L"ReleaseVersion", REG_DWORD, {1, 0, 0, 0});
    LogCapture log;
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    const auto reason = [](const std::string& message, int code) {
        return Wide(message + ": " + std::system_category().message(code));
    };
    EXPECT_THAT(log.Lines(), ElementsAre(L"Unable to find ReleaseVersion regkey for [Marlin 5] - [PCI\\VEN_1E7D&1]. " +
                                             reason("Unable to open registry key", 2),
                                         L"Unable to find ReleaseVersion regkey for [Marlin 5] - [PCI\\VEN_1E7D&2]. " +
                                             reason("Unable to get registry value", 2),
                                         L"Unable to find ReleaseVersion regkey for [Marlin 5] - [PCI\\VEN_1E7D&3]. " +
                                             reason("Unable to get registry value", 1630)));
}

TEST_F(DisplayDrivers, AnyStandardExceptionOfTheReadingIsCaught)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    SUBSTITUTE(RegGetValueW) get([](auto...) -> LSTATUS { throw std::bad_alloc(); });
    LogCapture log;
    EXPECT_THAT(EnumerateDisplayDrivers(), IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(L"Unable to find ReleaseVersion regkey for [Marlin 5] - [PCI\\VEN_1E7D]. "
                                         L"std::bad_alloc"));
}

// Proves: The driver key is opened => for reading, and closed
TEST_F(DisplayDrivers, DriverKeyIsOpenedForReadingAndClosed)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    std::vector<HKEY> opened;
    std::vector<HKEY> closed;
    {
        SUBSTITUTE(RegOpenKeyExW)
        open([&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
            EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
            EXPECT_STREQ(path, L"SYSTEM\\CurrentControlSet\\Control\\Class\\{4d36e968}\\0");
            EXPECT_EQ(options, 0u);
            EXPECT_EQ(access, 0x20019u);
            const LSTATUS status = open.Original()(root, path, options, access, key);
            opened.push_back(*key);
            return status;
        });
        SUBSTITUTE(RegCloseKey)
        close([&](HKEY key) {
            closed.push_back(key);
            return close.Original()(key);
        });
        EXPECT_EQ(EnumerateDisplayDrivers().size(), 1u);
    }
    EXPECT_EQ(opened.size(), 1u);
    EXPECT_EQ(closed, opened);
}

struct Release
{
    const wchar_t* version;
    const wchar_t* base;
};

class DisplayDriversRelease : public DisplayDrivers, public testing::WithParamInterface<Release>
{
};

// Proves: A release without a hyphen, or one that begins with it => the whole release; an empty one
TEST_P(DisplayDriversRelease, BaseEndsBeforeTheFirstHyphen)
{
    AddAdapter(L"PCI\\VEN_1E7D", GetParam().version);
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.front().releaseVersion, GetParam().version);
    EXPECT_EQ(records.front().releaseBase, GetParam().base);
}

INSTANTIATE_TEST_SUITE_P(All, DisplayDriversRelease,
                         testing::Values(Release{L"24.20.11-240611a-1", L"24.20.11"}, Release{L"24.20", L"24.20"},
                                         Release{L"-24.20", L""}, Release{L"", L""}, Release{L" 24 - x", L" 24 "}));

// Proves: Device Manager reports a problem => logged, the adapter is kept with the code
TEST_F(DisplayDrivers, ProblemCodeIsLoggedAndKept)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    Last().problem = 43;
    LogCapture log;
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.front().problemCode, 43u);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Device has CM_PROB_Xxx code 43",
                                         L"Enumerating installed drivers for PCI\\VEN_1E7D - Marlin 5"));
}

// Proves: The problem code cannot be read => logged with the code as it is (not as HRESULT), 0, the adapter is kept
TEST_F(DisplayDrivers, ProblemCodeThatCannotBeReadIsLoggedWithTheRawErrorAndZero)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    Last().problemError = ERROR_NOT_FOUND;
    LogCapture log;
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.front().problemCode, 0u);
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"Unable to get DEVPKEY_Device_ProblemCode property:  1168 " + FormatSystemMessage(1168),
                            L"Enumerating installed drivers for PCI\\VEN_1E7D - Marlin 5"));
}

// Proves: The list of drivers cannot be built, a detail cannot be read => not noticed, the calls after it decide
TEST_F(DisplayDrivers, DriverListThatCannotBeBuiltDoesNotMatter)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    Last().buildError = ERROR_ACCESS_DENIED;
    Last().packages = {MakePackage(L"pack", "1")};
    EXPECT_EQ(EnumerateDisplayDrivers().front().driverFolder, folder_ / L"pack");
}

// Proves: No package carries the release => only the "Found driver" lines; the folder is empty, the adapter kept
TEST_F(DisplayDrivers, WithoutAMatchingPackageTheFolderIsEmptyAndTheAdapterKept)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"24.20-b");
    const MadeUpPackage other = MakePackage(L"other", "24.20-a");
    Last().packages = {other};
    LogCapture log;
    const std::list<DisplayDriverInfo> records = EnumerateDisplayDrivers();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.front().driverFolder, L"");
    EXPECT_THAT(log.Lines(), ElementsAre(L"Enumerating installed drivers for PCI\\VEN_1E7D - Marlin 5",
                                         L"Found driver " + other.storePath + L". Version [24.20-a]"));
}

// Proves: A package's release is the active one, in any letter case => logged, its folder is taken; the last such package wins
TEST_F(DisplayDrivers, LastOfSeveralMatchingPackagesWinsWithoutRegardToCase)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"24.20-a");
    const MadeUpPackage packages[] = {MakePackage(L"first", "24.20-a"), MakePackage(L"second", "24.20-A"),
                                      MakePackage(L"third", "24.20")};
    Last().packages.assign(std::begin(packages), std::end(packages));
    LogCapture log;
    EXPECT_EQ(EnumerateDisplayDrivers().front().driverFolder, folder_ / L"second");
    EXPECT_THAT(log.Lines(), ElementsAre(L"Enumerating installed drivers for PCI\\VEN_1E7D - Marlin 5",
                                         L"Found driver " + packages[0].storePath + L". Version [24.20-a]",
                                         L"\tFound driver matching active driver",
                                         L"Found driver " + packages[1].storePath + L". Version [24.20-A]",
                                         L"\tFound driver matching active driver",
                                         L"Found driver " + packages[2].storePath + L". Version [24.20]"));
}

// Proves: The driver store does not know a package => the path of the package before is used, even across adapters
TEST_F(DisplayDrivers, PackageThatTheDriverStoreDoesNotKnowIsTakenForTheOneBefore)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    const MadeUpPackage known = MakePackage(L"known", "2");
    Last().packages = {known, {L"unknown.inf", L""}};
    LogCapture log;
    EXPECT_EQ(EnumerateDisplayDrivers().front().driverFolder, L"");
    EXPECT_THAT(log.Lines(), ElementsAre(L"Enumerating installed drivers for PCI\\VEN_1E7D - Marlin 5",
                                         L"Found driver " + known.storePath + L". Version [2]",
                                         L"Found driver " + known.storePath + L". Version [2]"));
}

TEST_F(DisplayDrivers, PathOfAnUnknownPackageIsKeptAcrossDevices)
{
    AddAdapter(L"PCI\\VEN_1E7D&1", L"2");
    const MadeUpPackage known = MakePackage(L"known", "1");
    Last().packages = {known};
    AddAdapter(L"PCI\\VEN_1E7D&2", L"1");
    Last().packages = {{L"unknown.inf", L""}};
    EXPECT_EQ(EnumerateDisplayDrivers().back().driverFolder, folder_ / L"known");
}

// Proves: An empty release => matches a package without one
TEST_F(DisplayDrivers, EmptyReleaseMatchesAPackageWithoutOne)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"");
    folder_.CreateFolder(L"pack");
    Last().packages = {{L"a.inf", folder_.WriteBytes(L"pack\\x.inf", "[Version]\r\nSignature=\"$Windows NT$\"\r\n")}};
    EXPECT_EQ(EnumerateDisplayDrivers().front().driverFolder, folder_ / L"pack");
}

// Proves: The path of the INF has doubled separators => the folder has none at its end
TEST_F(DisplayDrivers, FolderIsThePathWithoutItsLastPartAndSeparators)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    MadeUpPackage package = MakePackage(L"pack", "1");
    package.storePath = folder_ / L"pack/\\x.inf";
    Last().packages = {package};
    EXPECT_EQ(EnumerateDisplayDrivers().front().driverFolder, folder_ / L"pack");
}

TEST_F(DisplayDrivers, DetailWhoseSizeIsUnknownIsStillAskedFor)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    const MadeUpPackage package = MakePackage(L"pack", "1");
    Last().packages = {package};
    int calls = 0;
    SUBSTITUTE(SetupDiGetDriverInfoDetailW)
    detail([&](HDEVINFO, SP_DEVINFO_DATA*, SP_DRVINFO_DATA_W*, SP_DRVINFO_DETAIL_DATA_W* data, DWORD bytes, DWORD*) {
        if (++calls == 1)
        {
            return FailWith(ERROR_NOT_SUPPORTED);
        }
        EXPECT_GE(bytes, 1584u);
        EXPECT_EQ(data->cbSize, 1584u);
        package.infName.copy(data->InfFileName, MAX_PATH - 1);
        return FailWith(ERROR_NOT_SUPPORTED);  // neither result matters
    });
    EXPECT_EQ(EnumerateDisplayDrivers().front().driverFolder, folder_ / L"pack");
    EXPECT_EQ(calls, 2);
}

struct Description
{
    const wchar_t* text;
    bool isKept;
};

class DisplayDriversDescription : public DisplayDrivers, public testing::WithParamInterface<Description>
{
};

// Proves: "Microsoft" in the description => left out without a line, although the vendor matches
// Proves: A description shorter than nine characters, or in other letter case => never left out for that
TEST_P(DisplayDriversDescription, OfTheGenericDriverLeavesTheAdapterOutWithoutALine)
{
    AddAdapter(L"PCI\\VEN_1E7D", L"1");
    Last().description = GetParam().text;
    LogCapture log;
    EXPECT_EQ(EnumerateDisplayDrivers().size(), GetParam().isKept ? 1u : 0u);
    EXPECT_THAT(log.Lines(),
                ElementsAre(std::wstring(L"Enumerating installed drivers for PCI\\VEN_1E7D - ") + GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(All, DisplayDriversDescription,
                         testing::Values(Description{L"Microsoft Basic Display Adapter", false},
                                         Description{L"Adapter (Microsoft Corporation)", false},
                                         Description{L"Microsoft", false}, Description{L"Microsof", true},
                                         Description{L"microsoft basic display", true},
                                         Description{L"MICROSOFT DISPLAY", true}, Description{L"", true}));

// Proves: Releases 23.10.2 and 23.9.1 => 23.9.1 comes first: characters are compared, not numbers; a longer release before its own beginning
TEST_F(DisplayDrivers, GreatestBaseComesFirstByCharactersNotNumbers)
{
    AddAdapter(L"PCI\\VEN_1E7D&1", L"23.10.2-a");
    AddAdapter(L"PCI\\VEN_1E7D&2", L"23.9.1-b");
    EXPECT_THAT(Bases(), ElementsAre(L"23.9.1", L"23.10.2"));
}

TEST_F(DisplayDrivers, OrderIsByUtf16UnitsALongerBaseBeforeItsStart)
{
    for (const wchar_t* release : {L"24", L"24.20", L"", L"a", L"Z", L"\U0001f600", L"\uff21"})
    {
        AddAdapter(L"PCI\\VEN_1E7D", release);
    }
    EXPECT_THAT(Bases(), ElementsAre(L"\uff21", L"\U0001f600", L"a", L"Z", L"24.20", L"24", L""));
}

// Proves: Equal releases => keep the system's order
TEST_F(DisplayDrivers, EqualBasesKeepTheSystemsOrder)
{
    AddAdapter(L"PCI\\VEN_1E7D&1", L"5-a");
    AddAdapter(L"PCI\\VEN_1E7D&2", L"7-a");
    AddAdapter(L"PCI\\VEN_1E7D&3", L"5-c");
    AddAdapter(L"PCI\\VEN_1E7D&4", L"7-b");
    AddAdapter(L"PCI\\VEN_1E7D&5", L"5-b");
    std::vector<std::wstring> ids;
    for (const DisplayDriverInfo& record : EnumerateDisplayDrivers())
    {
        ids.push_back(record.instanceId.substr(13));
    }
    EXPECT_THAT(ids, ElementsAre(L"2", L"4", L"1", L"3", L"5"));
}

// Proves: Two adapters one after the other => nothing but the two shared buffers goes from one to the next
TEST_F(DisplayDrivers, NothingOfADeviceLeaksIntoTheNext)
{
    AddAdapter(L"PCI\\VEN_1E7D&1", L"2-a");
    Last().problem = 10;
    Last().packages = {MakePackage(L"pack", "2-a")};
    AddAdapter(L"PCI\\VEN_1E7D&2", L"1");
    Last().description.reset();
    const DisplayDriverInfo second = EnumerateDisplayDrivers().back();
    EXPECT_EQ(second.description, L"");
    EXPECT_EQ(second.driverFolder, L"");
    EXPECT_EQ(second.problemCode, 0u);
    EXPECT_EQ(second.releaseVersion, L"1");
}
}  // namespace
}  // namespace repair
