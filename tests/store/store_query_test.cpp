#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "store/store_packages.h"
#include "store/winrt_runtime.h"
#include "support/fake_runtime.h"
#include "support/log_capture.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace repair
{
namespace
{
constexpr wchar_t kFirst[] = L"TavikSystemsInc-2.8F31D07A2B6E4_1.0.0.0_x64__abc";
constexpr wchar_t kSecond[] = L"TavikSystemsInc-2.TavikCorvelSoftware_1.0.0.0_x64__abc";
constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

std::wstring Text(const PackageVersion& version)
{
    return std::to_wstring(version.Major) + L"." + std::to_wstring(version.Minor) + L"." +
           std::to_wstring(version.Build) + L"." + std::to_wstring(version.Revision);
}

struct Name
{
    std::wstring text;
    bool matches;
};

void PrintTo(const Name& name, std::ostream* stream)
{
    *stream << testing::PrintToString(name.text);
}

class MatchesStorePackageTest : public testing::TestWithParam<Name>
{
};
INSTANTIATE_TEST_SUITE_P(Names, MatchesStorePackageTest,
                         testing::Values(Name{L"TavikSystemsInc-2.8F31D07A2B6E4", true},
                                         Name{L"TavikSystemsInc-2.TavikCorvelSoftware", true},
                                         Name{L"taviksystemsinc-2.8f31d07a2b6e4_1.2.3.4_x64__q", true},
                                         Name{L"XX.TAVIKSYSTEMSINC-2.TAVIKCORVELSOFTWARE.Longer", true},
                                         Name{L"", false}, Name{L"TavikSystemsInc-2.8F31D07A2B6E", false},
                                         Name{L"TavikSystemsInc-2", false},
                                         Name{L"TavikSystemsInc_2.TavikCorvelSoftware", false},
                                         Name{L"TavikCorvelSoftware", false}));

// Proves: A full name contains either name anywhere, in any letter case => it is the application
TEST_P(MatchesStorePackageTest, ByEitherNameAnywhereInAnyLetterCase)
{
    EXPECT_EQ(MatchesStorePackage(GetParam().text), GetParam().matches);
}

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Two usable versions, 1.10.0.0 and 1.9.5.0 => each is logged; the highest by numbers counts, in any position
TEST(QueryStorePackageVersion, HighestUsableVersionWinsFieldByField)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 9, 5, 0}}, {kSecond, {1, 10, 0, 0}}, {kFirst, {1, 9, 65535, 65535}}};
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.10.0.0");
    EXPECT_THAT(log.Lines(), ElementsAre(std::wstring(L"User has ") + kFirst + L" - version 1.9.5.0",
                                         std::wstring(L"User has ") + kSecond + L" - version 1.10.0.0",
                                         std::wstring(L"User has ") + kFirst + L" - version 1.9.65535.65535"));
}

struct Pair
{
    component::Version a;
    component::Version b;
    const wchar_t* highest;
};

void PrintTo(const Pair& pair, std::ostream* stream)
{
    *stream << testing::PrintToString(std::wstring(pair.highest));
}

class VersionOrder : public testing::TestWithParam<Pair>
{
};
INSTANTIATE_TEST_SUITE_P(Pairs, VersionOrder,
                         testing::Values(Pair{{2, 0, 0, 0}, {1, 65535, 65535, 65535}, L"2.0.0.0"},
                                         Pair{{1, 2, 0, 0}, {1, 1, 65535, 65535}, L"1.2.0.0"},
                                         Pair{{1, 1, 2, 0}, {1, 1, 1, 65535}, L"1.1.2.0"},
                                         Pair{{1, 1, 1, 2}, {1, 1, 1, 1}, L"1.1.1.2"},
                                         Pair{{40000, 0, 0, 0}, {30000, 1, 1, 1}, L"40000.0.0.0"}));

TEST_P(VersionOrder, DoesNotDependOnTheOrderOfEnumeration)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, GetParam().a}, {kSecond, GetParam().b}};
    EXPECT_EQ(Text(QueryStorePackageVersion()), GetParam().highest);
    runtime.packages.reverse();
    EXPECT_EQ(Text(QueryStorePackageVersion()), GetParam().highest);
}

// Proves: A disabled package => logged as such, never counts, even as the highest
TEST(QueryStorePackageVersion, DisabledPackageIsLoggedButNeverReturned)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {9, 0, 0, 0}, false}, {kSecond, {1, 0, 0, 0}}};
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log.Lines(),
                ElementsAre(std::wstring(L"User has ") + kFirst + L" - version 9.0.0.0", L"\tThis version is disabled",
                            std::wstring(L"User has ") + kSecond + L" - version 1.0.0.0"));
}

// Proves: All matching packages disabled => the same, after their lines
TEST(QueryStorePackageVersion, OnlyDisabledPackagesMeanNotInstalled)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {9, 0, 0, 0}, false}};
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(log.Lines(), ElementsAre(std::wstring(L"User has ") + kFirst + L" - version 9.0.0.0",
                                         L"\tThis version is disabled", L"UWP version is not installed"));
}

// Proves: Other packages, a package without a name => passed over in silence
// Proves: No matching package (store package query) => "UWP version is not installed", the zero version
TEST(QueryStorePackageVersion, OtherPackagesAreNotMentioned)
{
    FakeRuntime runtime;
    runtime.packages = {{L"Other.App_1.0.0.0_x64__abc", {1, 0, 0, 0}}, {L"", {2, 0, 0, 0}}};
    runtime.packages.back().faults.nulls = {"GetFullName"};
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(log.Lines(), ElementsAre(L"UWP version is not installed"));
}

// Proves: Packages of other users => count: all packages are asked for, once
TEST(QueryStorePackageVersion, AllPackagesOfAllUsersAreAskedForOnce)
{
    FakeRuntime runtime;
    QueryStorePackageVersion();
    EXPECT_THAT(runtime.Calls(),
                ElementsAre(L"activate Windows.Management.Deployment.PackageManager", L"create", L"find"));
}

// Proves: The class's factory => is fetched once a process and kept, and only it; threads that race keep one; a failure is not kept
TEST(QueryStorePackageVersion, FactoryIsFetchedOncePerProcess)
{
    FakeRuntime runtime;
    QueryStorePackageVersion();
    QueryStorePackageVersion();
    RemoveStorePackages();
    EXPECT_THAT(runtime.Calls(), Contains(L"activate Windows.Management.Deployment.PackageManager").Times(1));
    EXPECT_THAT(runtime.Calls(), Contains(L"create").Times(3));
}

TEST(QueryStorePackageVersion, ThreadsThatRaceForTheFactoryKeepOneAndReleaseTheOther)
{
    FakeRuntime runtime;
    std::atomic<int> arrived = 0;
    runtime.onActivation = [&arrived] {  // neither gets a factory before both have asked for one
        for (++arrived; arrived < 2;)
        {
            Sleep(1);
        }
    };
    std::thread other([] { QueryStorePackageVersion(); });
    QueryStorePackageVersion();
    other.join();
    EXPECT_THAT(runtime.Calls(), Contains(L"activate Windows.Management.Deployment.PackageManager").Times(2));
    EXPECT_EQ(component::liveObjects, 1);
}

TEST(QueryStorePackageVersion, KeepsNothingButTheFactory)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}, false}, {L"Other", {1, 0, 0, 0}}};
    QueryStorePackageVersion();
    EXPECT_EQ(component::liveObjects, 1);
    EXPECT_EQ(LiveStrings(), 0);
}

// Own process: the functions of the Windows Runtime are looked up once in a process.
// --- Activation
// Proves: The thread has no apartment (store package query) => it becomes part of the multithreaded one, and the class is asked for once more; for no other error
TEST(Activation, ThreadWithoutAnApartmentIsMadePartOfTheMultithreadedOneAndTriesAgain)
{
    FakeRuntime runtime;
    runtime.withoutApartment = static_cast<HRESULT>(0x800401F0);
    LogCapture log;
    QueryStorePackageVersion();
    EXPECT_THAT(runtime.Calls(),
                ElementsAre(L"activate Windows.Management.Deployment.PackageManager", L"mta",
                            L"activate Windows.Management.Deployment.PackageManager", L"create", L"find"));
    EXPECT_THAT(log.Lines(), ElementsAre(L"UWP version is not installed"));
    EXPECT_EQ(LiveStrings(), 0);
}

TEST(Activation, IsRetriedOnceOnlyAndForThatErrorOnly)
{
    FakeRuntime runtime;
    runtime.faults.fails["activation"] = static_cast<HRESULT>(0x80040154);
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(runtime.Calls(), ElementsAre(L"activate Windows.Management.Deployment.PackageManager"));
    runtime.withoutApartment = static_cast<HRESULT>(0x800401F0);
    QueryStorePackageVersion();
    EXPECT_THAT(runtime.Calls(), Contains(L"mta").Times(1));
    EXPECT_THAT(runtime.Calls(), testing::SizeIs(1 + 3));
}

TEST(Activation, WithoutTheApartmentFunctionTheFirstErrorStands)
{
    FakeRuntime runtime;
    runtime.missingFunctions = {"CoIncrementMTAUsage"};
    runtime.withoutApartment = static_cast<HRESULT>(0x800401F0);
    runtime.faults.texts["activation"] = L"";
    LogCapture log;
    QueryStorePackageVersion();
    EXPECT_THAT(runtime.Calls(), ElementsAre(L"activate Windows.Management.Deployment.PackageManager"));
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith(L"Exception ")));
}

TEST(Activation, FailureIsNotKeptAndTheNextCallTriesAgain)
{
    FakeRuntime runtime;
    runtime.faults.fails["activation"] = kDenied;
    QueryStorePackageVersion();
    runtime.faults.fails.clear();
    LogCapture log;
    QueryStorePackageVersion();
    EXPECT_THAT(log.Lines(), ElementsAre(L"UWP version is not installed"));
}

class MissingRuntimeFunction : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Functions, MissingRuntimeFunction,
                         testing::Values("RoGetActivationFactory", "WindowsCreateString", "WindowsDuplicateString",
                                         "WindowsDeleteString", "WindowsGetStringRawBuffer"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: A Windows without these classes or functions => logged as a failed search
TEST_P(MissingRuntimeFunction, IsAFailureOfTheSearch)
{
    FakeRuntime runtime;
    runtime.missingFunctions = {GetParam()};
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(log.Lines(),
                ElementsAre(AllOf(StartsWith(L"Exception "), EndsWith(L"when searching for UWP version of VLT"))));
    EXPECT_THAT(runtime.Calls(), IsEmpty());
}

// --- Failures of the search
class SearchFailure : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Calls, SearchFailure,
                         testing::Values("activation", "ActivateInstance", "FindPackages", "First", "GetHasCurrent",
                                         "GetCurrent", "MoveNext"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: The manager cannot be created, or the enumeration fails (store package query) => logged with its text, the zero version
TEST_P(SearchFailure, IsLoggedWithItsTextAndGivesTheZeroVersion)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 0, 0, 0}}};
    runtime.faults.fails[GetParam()] = kDenied;
    runtime.faults.texts[GetParam()] = L"Not for you.";
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    ASSERT_FALSE(log.Lines().empty());
    EXPECT_EQ(log.Lines().back(), L"Exception Not for you. when searching for UWP version of VLT");
    EXPECT_LE(component::liveObjects, 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_EQ(LiveBasicStrings(), 0);
}

TEST_P(SearchFailure, IsThrownByTheInnerSearch)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 0, 0, 0}}};
    runtime.faults.fails[GetParam()] = kDenied;
    EXPECT_THROW(FindStorePackageVersion(), WinrtError);
}

// Proves: Memory runs out while searching (store package query) => "Unknown expection", the zero version
TEST_P(SearchFailure, OutOfMemoryIsAnUnknownException)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 0, 0, 0}}};
    runtime.faults.fails[GetParam()] = E_OUTOFMEMORY;
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    ASSERT_FALSE(log.Lines().empty());
    EXPECT_EQ(log.Lines().back(), L"Unknown expection occured when searching for UWP version of VLT");
}

class SearchWithoutAnObject : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Getters, SearchWithoutAnObject,
                         testing::Values("activation", "ActivateInstance", "FindPackages", "First"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(SearchWithoutAnObject, IsAFailureAsWell)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 0, 0, 0}}};
    runtime.faults.nulls = {GetParam()};
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(log.Lines(),
                ElementsAre(AllOf(StartsWith(L"Exception "), EndsWith(L"when searching for UWP version of VLT"))));
}

// --- Failures of one package
struct PackageFault
{
    const char* method;
    bool nameWasRead;
};

void PrintTo(const PackageFault& fault, std::ostream* stream)
{
    *stream << fault.method;
}

class PackageFailure : public testing::TestWithParam<PackageFault>
{
protected:
    std::wstring NameAsRead() const { return GetParam().nameWasRead ? kFirst : L""; }
};
INSTANTIATE_TEST_SUITE_P(Calls, PackageFailure,
                         testing::Values(PackageFault{"GetId", false}, PackageFault{"GetFullName", false},
                                         PackageFault{"GetVersion", true},
                                         PackageFault{"QueryInterface(IPackage3)", true},
                                         PackageFault{"GetStatus", true}, PackageFault{"VerifyIsOK", true}));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Reading one package fails => logged with text and name as far as it was read, the next one is read
TEST_P(PackageFailure, IsLoggedWithTheNameAsFarAsReadAndTheNextOneIsLookedAt)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {7, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}}};
    runtime.packages.front().faults.fails[GetParam().method] = kDenied;
    runtime.packages.front().faults.texts[GetParam().method] = L"Broken.";
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log.Lines(), Contains(L"Exception Broken. when enumerating info for " + NameAsRead()));
    EXPECT_EQ(log.Lines().back(), std::wstring(L"User has ") + kSecond + L" - version 1.0.0.0");
    EXPECT_EQ(component::liveObjects, 1);
    EXPECT_EQ(LiveStrings(), 0);
}

// Proves: Memory runs out while reading one => "Unknown expection", the next one is read
TEST_P(PackageFailure, OfMemoryIsAnUnknownException)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {7, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}}};
    runtime.packages.front().faults.fails[GetParam().method] = E_OUTOFMEMORY;
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log.Lines(), Contains(L"Unknown expection occured when enumerating info for " + NameAsRead()));
}

class PackageWithoutAnObject : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Getters, PackageWithoutAnObject, testing::Values("GetCurrent", "GetId", "GetStatus"));

TEST_P(PackageWithoutAnObject, IsSkippedLikeAFailure)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {7, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}}};
    runtime.packages.front().faults.nulls = {GetParam()};
    LogCapture log;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log.Lines(), Contains(AllOf(StartsWith(L"Exception "), HasSubstr(L"when enumerating info for "))));
}
}  // namespace
}  // namespace repair
