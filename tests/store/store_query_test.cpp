#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "store/store_packages.h"
#include "store/winrt_runtime.h"
#include "support/store_test.h"

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

using StoreQuery = StoreTest;
using StoreActivation = StoreTest;

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

// Proves: Two usable versions, 1.10.0.0 and 1.9.5.0 => each is logged; the highest by numbers counts, in any position
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_F(StoreQuery, HighestUsableVersionWinsFieldByField)
{
    runtime_.packages = {{kFirst, {1, 9, 5, 0}}, {kSecond, {1, 10, 0, 0}}, {kFirst, {1, 9, 65535, 65535}}};
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.10.0.0");
    EXPECT_THAT(log_.Lines(), ElementsAre(std::wstring(L"User has ") + kFirst + L" - version 1.9.5.0",
                                          std::wstring(L"User has ") + kSecond + L" - version 1.10.0.0",
                                          std::wstring(L"User has ") + kFirst + L" - version 1.9.65535.65535"));
}

struct Pair
{
    component::PackageVersion a;
    component::PackageVersion b;
    const wchar_t* highest;
};

void PrintTo(const Pair& pair, std::ostream* stream)
{
    *stream << testing::PrintToString(std::wstring(pair.highest));
}

using VersionOrder = StoreTestOf<Pair>;
INSTANTIATE_TEST_SUITE_P(Pairs, VersionOrder,
                         testing::Values(Pair{{2, 0, 0, 0}, {1, 65535, 65535, 65535}, L"2.0.0.0"},
                                         Pair{{1, 2, 0, 0}, {1, 1, 65535, 65535}, L"1.2.0.0"},
                                         Pair{{1, 1, 2, 0}, {1, 1, 1, 65535}, L"1.1.2.0"},
                                         Pair{{1, 1, 1, 2}, {1, 1, 1, 1}, L"1.1.1.2"},
                                         Pair{{40000, 0, 0, 0}, {30000, 1, 1, 1}, L"40000.0.0.0"}));

TEST_P(VersionOrder, DoesNotDependOnTheOrderOfEnumeration)
{
    runtime_.packages = {{kFirst, GetParam().a}, {kSecond, GetParam().b}};
    EXPECT_EQ(Text(QueryStorePackageVersion()), GetParam().highest);
    runtime_.packages.reverse();
    EXPECT_EQ(Text(QueryStorePackageVersion()), GetParam().highest);
}

// Proves: A disabled package => logged as such, never counts, even as the highest
TEST_F(StoreQuery, DisabledPackageIsLoggedButNeverReturned)
{
    runtime_.packages = {{kFirst, {9, 0, 0, 0}, false}, {kSecond, {1, 0, 0, 0}}};
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log_.Lines(),
                ElementsAre(std::wstring(L"User has ") + kFirst + L" - version 9.0.0.0", L"\tThis version is disabled",
                            std::wstring(L"User has ") + kSecond + L" - version 1.0.0.0"));
}

// Proves: All matching packages disabled => the same, after their lines
TEST_F(StoreQuery, OnlyDisabledPackagesMeanNotInstalled)
{
    runtime_.packages = {{kFirst, {9, 0, 0, 0}, false}};
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(log_.Lines(), ElementsAre(std::wstring(L"User has ") + kFirst + L" - version 9.0.0.0",
                                          L"\tThis version is disabled", L"UWP version is not installed"));
}

// Proves: Other packages, a package without a name => passed over in silence
// Proves: No matching package (store package query) => "UWP version is not installed", the zero version
TEST_F(StoreQuery, OtherPackagesAreNotMentioned)
{
    runtime_.packages = {{L"Other.App_1.0.0.0_x64__abc", {1, 0, 0, 0}}, {L"", {2, 0, 0, 0}}};
    runtime_.packages.back().faults.nulls = {L"get_FullName"};
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"UWP version is not installed"));
}

// Proves: Packages of other users => count: all packages are asked for, once
TEST_F(StoreQuery, AllPackagesOfAllUsersAreAskedForOnce)
{
    QueryStorePackageVersion();
    EXPECT_THAT(runtime_.Calls(),
                ElementsAre(L"activate Windows.Management.Deployment.PackageManager", L"create", L"find"));
}

// Proves: The class's factory => is fetched once a process and kept, and only it; threads that race keep one; a failure is not kept
TEST_F(StoreQuery, FactoryIsFetchedOncePerProcess)
{
    QueryStorePackageVersion();
    QueryStorePackageVersion();
    RemoveStorePackages();
    EXPECT_THAT(runtime_.Calls(), Contains(L"activate Windows.Management.Deployment.PackageManager").Times(1));
    EXPECT_THAT(runtime_.Calls(), Contains(L"create").Times(3));
}

TEST_F(StoreQuery, ThreadsThatRaceForTheFactoryKeepOneAndReleaseTheOther)
{
    std::atomic<int> arrived = 0;
    runtime_.onActivation = [&arrived] {  // neither gets a factory before both have asked for one
        for (++arrived; arrived < 2;)
        {
            Sleep(1);
        }
    };
    std::thread other([] { QueryStorePackageVersion(); });
    QueryStorePackageVersion();
    other.join();
    EXPECT_THAT(runtime_.Calls(), Contains(L"activate Windows.Management.Deployment.PackageManager").Times(2));
    EXPECT_EQ(LiveObjects(), 1);
}

TEST_F(StoreQuery, KeepsNothingButTheFactory)
{
    runtime_.packages = {{kFirst, {1, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}, false}, {L"Other", {1, 0, 0, 0}}};
    QueryStorePackageVersion();
    EXPECT_EQ(LiveObjects(), 1);
    EXPECT_EQ(LiveStrings(), 0);
}

// --- Activation
// Proves: The thread has no apartment (store package query) => it becomes part of the multithreaded one, and the class is asked for once more; for no other error
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_F(StoreActivation, ThreadWithoutAnApartmentIsMadePartOfTheMultithreadedOneAndTriesAgain)
{
    runtime_.withoutApartment = static_cast<HRESULT>(0x800401F0);
    QueryStorePackageVersion();
    EXPECT_THAT(runtime_.Calls(),
                ElementsAre(L"activate Windows.Management.Deployment.PackageManager", L"mta",
                            L"activate Windows.Management.Deployment.PackageManager", L"create", L"find"));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"UWP version is not installed"));
    EXPECT_EQ(LiveStrings(), 0);
}

TEST_F(StoreActivation, IsRetriedOnceOnlyAndForThatErrorOnly)
{
    runtime_.faults.fails[L"activation"] = static_cast<HRESULT>(0x80040154);
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(runtime_.Calls(), ElementsAre(L"activate Windows.Management.Deployment.PackageManager"));
    runtime_.withoutApartment = static_cast<HRESULT>(0x800401F0);
    QueryStorePackageVersion();
    EXPECT_THAT(runtime_.Calls(), Contains(L"mta").Times(1));
    EXPECT_THAT(runtime_.Calls(), testing::SizeIs(1 + 3));
}

TEST_F(StoreActivation, WithoutTheApartmentFunctionTheFirstErrorStands)
{
    runtime_.missingFunctions = {"CoIncrementMTAUsage"};
    runtime_.withoutApartment = static_cast<HRESULT>(0x800401F0);
    runtime_.faults.texts[L"activation"] = L"";
    QueryStorePackageVersion();
    EXPECT_THAT(runtime_.Calls(), ElementsAre(L"activate Windows.Management.Deployment.PackageManager"));
    EXPECT_THAT(log_.Lines(), ElementsAre(StartsWith(L"Exception ")));
}

TEST_F(StoreActivation, FailureIsNotKeptAndTheNextCallTriesAgain)
{
    runtime_.faults.fails[L"activation"] = kDenied;
    QueryStorePackageVersion();
    runtime_.faults.fails.clear();
    QueryStorePackageVersion();
    EXPECT_THAT(log_.Lines(), ElementsAre(testing::_, L"UWP version is not installed"));
}

using MissingRuntimeFunction = StoreTestOf<std::string>;
INSTANTIATE_TEST_SUITE_P(Functions, MissingRuntimeFunction,
                         testing::Values("RoGetActivationFactory", "WindowsCreateString", "WindowsDuplicateString",
                                         "WindowsDeleteString", "WindowsGetStringRawBuffer"));

// Proves: A Windows without these classes or functions => logged as a failed search
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(MissingRuntimeFunction, IsAFailureOfTheSearch)
{
    runtime_.missingFunctions = {GetParam()};
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"0.0.0.0");
    EXPECT_THAT(log_.Lines(),
                ElementsAre(AllOf(StartsWith(L"Exception "), EndsWith(L"when searching for UWP version of VLT"))));
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
}

// --- Failures of one package
struct PackageFault
{
    const wchar_t* method;
    bool nameWasRead;
};

void PrintTo(const PackageFault& fault, std::ostream* stream)
{
    *stream << testing::PrintToString(std::wstring(fault.method));
}

class PackageFailure : public StoreTestOf<PackageFault>
{
protected:
    std::wstring NameAsRead() const { return GetParam().nameWasRead ? kFirst : L""; }
};
INSTANTIATE_TEST_SUITE_P(Calls, PackageFailure,
                         testing::Values(PackageFault{L"get_Id", false}, PackageFault{L"get_FullName", false},
                                         PackageFault{L"get_Version", true}, PackageFault{L"IPackage3", true},
                                         PackageFault{L"get_Status", true}, PackageFault{L"VerifyIsOK", true}));

// Proves: Reading one package fails => logged with text and name as far as it was read, the next one is read
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(PackageFailure, IsLoggedWithTheNameAsFarAsReadAndTheNextOneIsChecked)
{
    runtime_.packages = {{kFirst, {7, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}}};
    runtime_.packages.front().faults.fails[GetParam().method] = kDenied;
    runtime_.packages.front().faults.texts[GetParam().method] = L"Broken.";
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log_.Lines(), Contains(L"Exception Broken. when enumerating info for " + NameAsRead()));
    EXPECT_EQ(log_.Lines().back(), std::wstring(L"User has ") + kSecond + L" - version 1.0.0.0");
    EXPECT_EQ(LiveObjects(), 1);
    EXPECT_EQ(LiveStrings(), 0);
}

// Proves: Memory runs out while reading one => "Unknown expection", the next one is read
TEST_P(PackageFailure, OfMemoryIsAnUnknownException)
{
    runtime_.packages = {{kFirst, {7, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}}};
    runtime_.packages.front().faults.fails[GetParam().method] = E_OUTOFMEMORY;
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log_.Lines(), Contains(L"Unknown expection occured when enumerating info for " + NameAsRead()));
}

using PackageWithoutAnObject = StoreTestOf<std::wstring>;
INSTANTIATE_TEST_SUITE_P(Getters, PackageWithoutAnObject, testing::Values(L"get_Current", L"get_Id", L"get_Status"));

TEST_P(PackageWithoutAnObject, IsSkippedLikeAFailure)
{
    runtime_.packages = {{kFirst, {7, 0, 0, 0}}, {kSecond, {1, 0, 0, 0}}};
    runtime_.packages.front().faults.nulls = {GetParam()};
    EXPECT_EQ(Text(QueryStorePackageVersion()), L"1.0.0.0");
    EXPECT_THAT(log_.Lines(), Contains(AllOf(StartsWith(L"Exception "), HasSubstr(L"when enumerating info for "))));
}
}  // namespace
}  // namespace repair
