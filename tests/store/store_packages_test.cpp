// Which packages and versions count, and how the package manager is reached. The cases show a whole query and removal.
#include <atomic>
#include <thread>

#include "store/store_packages.h"
#include "support/store_test.h"
#include "support/system_text.h"
#include "support/test.h"

namespace repair
{
namespace
{
constexpr wchar_t kFirst[] = L"TavikSystemsInc-2.8F31D07A2B6E4_1.0.0.0_x64__abc";
constexpr wchar_t kSecond[] = L"TavikSystemsInc-2.TavikCorvelSoftware_1.0.0.0_x64__abc";
constexpr wchar_t kActivation[] = L"DllGetActivationFactory Windows.Management.Deployment.PackageManager";
constexpr HRESULT kNoApartment = static_cast<HRESULT>(0x800401F0);

using StorePackages = StoreTest;

std::wstring Query()
{
    const PackageVersion version = QueryStorePackageVersion();
    return std::to_wstring(version.Major) + L"." + std::to_wstring(version.Minor) + L"." +
           std::to_wstring(version.Build) + L"." + std::to_wstring(version.Revision);
}

// Proves: A full name contains either name anywhere, in any letter case => it is the application
TEST(MatchesStorePackageTest, ByEitherNameAnywhereInAnyLetterCase)
{
    for (const wchar_t* name :
         {L"TavikSystemsInc-2.8F31D07A2B6E4", L"TavikSystemsInc-2.TavikCorvelSoftware",
          L"taviksystemsinc-2.8f31d07a2b6e4_1.2.3.4_x64__q", L"XX.TAVIKSYSTEMSINC-2.TAVIKCORVELSOFTWARE.Longer"})
    {
        EXPECT_TRUE(MatchesStorePackage(name)) << PrintToString(name);
    }
    for (const wchar_t* name : {L"", L"TavikSystemsInc-2.8F31D07A2B6E", L"TavikSystemsInc-2",
                                L"TavikSystemsInc_2.TavikCorvelSoftware", L"TavikCorvelSoftware"})
    {
        EXPECT_FALSE(MatchesStorePackage(name)) << PrintToString(name);
    }
}

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Two usable versions, 1.10.0.0 and 1.9.5.0 => each is logged; the highest by numbers counts, in any position
TEST_F(StorePackages, HighestVersionDoesNotDependOnTheOrderOfEnumeration)
{
    using Version = component::PackageVersion;
    const std::tuple<Version, Version, const wchar_t*> rows[] = {
        {{1, 10, 0, 0}, {1, 9, 5, 0}, L"1.10.0.0"},       {{2, 0, 0, 0}, {1, 65535, 65535, 65535}, L"2.0.0.0"},
        {{1, 2, 0, 0}, {1, 1, 65535, 65535}, L"1.2.0.0"}, {{1, 1, 2, 0}, {1, 1, 1, 65535}, L"1.1.2.0"},
        {{1, 1, 1, 2}, {1, 1, 1, 1}, L"1.1.1.2"},         {{40000, 0, 0, 0}, {30000, 1, 1, 1}, L"40000.0.0.0"}};
    for (const auto& [high, low, highest] : rows)
    {
        runtime_.packages = {{kFirst, high}, {kSecond, low}};
        EXPECT_EQ(Query(), highest);
        runtime_.packages = {{kSecond, low}, {kFirst, high}};
        EXPECT_EQ(Query(), highest);
    }
}

// Proves: The class's factory => is fetched once a process and kept, and only it; threads that race keep one; a failure is not kept
TEST_F(StorePackages, FactoryIsFetchedOncePerProcess)
{
    Query();
    Query();
    RemoveStorePackages();
    EXPECT_THAT(runtime_.Calls(), Contains(kActivation).Times(1));
    EXPECT_THAT(runtime_.Calls(), Contains(L"ActivateInstance PackageManager").Times(3));
}

TEST_F(StorePackages, ThreadsThatRaceForTheFactoryKeepOneAndReleaseTheOther)
{
    std::atomic<int> arrived = 0;
    runtime_.onActivation = [&arrived] {  // neither gets a factory before both have asked for one
        for (++arrived; arrived < 2;)
        {
            Sleep(1);
        }
    };
    std::thread other([] { QueryStorePackageVersion(); });
    Query();
    other.join();
    EXPECT_THAT(runtime_.Calls(), Contains(kActivation).Times(2));
}

TEST_F(StorePackages, FailureOfTheFactoryIsNotKeptAndTheNextCallTriesAgain)
{
    runtime_.manager.answers[L"activation"].result = kDenied;
    Query();
    runtime_.manager.answers.clear();
    Query();
    EXPECT_THAT(log_.Lines(), ElementsAre(testing::_, L"UWP version is not installed"));
}

TEST_F(StorePackages, ErrorObjectOfTheFirstActivationDoesNotDescribeALaterFailure)
{
    runtime_.manager.answers[L"activation"] = {
        .result = kNoApartment, .hasErrorObject = true, .isRestricted = false, .description = L"of the first try"};
    int tries = 0;
    runtime_.onActivation = [&] {
        if (++tries == 2)
        {
            runtime_.manager.answers.erase(L"activation");
        }
    };
    runtime_.manager.answers[L"FindPackages"].result = kDenied;
    Query();
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"Exception " + SystemText(kDenied) + L" when searching for UWP version of VLT"));
}

TEST_F(StorePackages, WithoutTheApartmentFunctionTheFirstErrorStands)
{
    runtime_.missingFunctions = {"CoIncrementMTAUsage"};
    runtime_.manager.answers[L"activation"].result = kNoApartment;
    Query();
    EXPECT_THAT(runtime_.Calls(), ElementsAre(std::wstring(kActivation) + L" -> 0x800401F0"));
    EXPECT_THAT(log_.Lines(), ElementsAre(StartsWith(L"Exception ")));
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
    EXPECT_EQ(Query(), L"0.0.0.0");
    EXPECT_THAT(log_.Lines(), ElementsAre(AllOf(StartsWith(L"Exception "),
                                                testing::EndsWith(L"when searching for UWP version of VLT"))));
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
}
}  // namespace
}  // namespace repair
