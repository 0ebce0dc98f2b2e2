#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/store_packages.h"
#include "store/winrt_runtime.h"
#include "support/store_test.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace repair
{
namespace
{
constexpr wchar_t kFirst[] = L"TavikSystemsInc-2.8F31D07A2B6E4_1.2.3.4_x64__abc";
constexpr wchar_t kSecond[] = L"TavikSystemsInc-2.TavikCorvelSoftware_5.6.7.8_x64__abc";
constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

using StoreRemoval = StoreTest;

std::wstring Removing(const wchar_t* name, const wchar_t* version)
{
    return std::wstring(L"Remvoing ") + name + L" - version " + version;
}

// Proves: Two matching packages => removed one after the other in the system's order, for all users, each with its two lines
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_F(StoreRemoval, RemovesEveryMatchingPackageForAllUsersOneAfterTheOther)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}, {L"Other.App", {1, 0, 0, 0}}, {kSecond, {5, 6, 7, 8}}};
    RemoveStorePackages();
    runtime_.WaitForThreads();
    std::vector<std::wstring> calls = runtime_.Calls();
    std::erase_if(calls, [](const std::wstring& call) { return call.starts_with(L"handler"); });
    EXPECT_THAT(calls, ElementsAre(L"activate Windows.Management.Deployment.PackageManager", L"create", L"find",
                                   std::wstring(L"remove ") + kFirst + L" 0x80000", L"complete", L"results",
                                   std::wstring(L"remove ") + kSecond + L" 0x80000", L"complete", L"results"));
    EXPECT_THAT(log_.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), L"\t Result = 0 ",
                                          Removing(kSecond, L"5.6.7.8"), L"\t Result = 0 "));
}

// Proves: No matching package (store package removal) => nothing is logged, nothing removed
TEST_F(StoreRemoval, WithoutAMatchingPackageNothingIsLoggedOrRemoved)
{
    runtime_.packages = {{L"Other.App", {1, 0, 0, 0}}, {L"", {2, 0, 0, 0}}};
    runtime_.packages.back().faults.nulls = {L"get_FullName"};
    RemoveStorePackages();
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_THAT(runtime_.Calls(), testing::Each(Not(StartsWith(L"remove"))));
}

// Proves: Disabled packages => removed like any other, their status is not asked for
TEST_F(StoreRemoval, DisabledPackagesAreRemovedLikeAnyOtherWithoutAskingForTheirStatus)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}, false}};
    runtime_.packages.front().faults.fails[L"get_Status"] = kDenied;
    RemoveStorePackages();
    EXPECT_THAT(log_.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), L"\t Result = 0 "));
}

// Proves: The system rejects a removal => signed code and text in the result line, the next package goes
TEST_F(StoreRemoval, RefusedRemovalShowsAsItsSignedCodeAndText)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime_.packages.front().removalError = static_cast<HRESULT>(0x80073CFA);
    runtime_.packages.front().removalText = L"Removal failed.";
    RemoveStorePackages();
    EXPECT_THAT(log_.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), L"\t Result = -2147009286 Removal failed.",
                                          Removing(kSecond, L"5.6.7.8"), L"\t Result = 0 "));
}

// Proves: A removal is canceled => logged with the full name, the next package goes
TEST_F(StoreRemoval, CanceledRemovalIsLoggedAndTheNextPackageRemovedAllTheSame)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime_.packages.front().removal.status = 2;
    RemoveStorePackages();
    EXPECT_THAT(log_.Lines(),
                ElementsAre(Removing(kFirst, L"1.2.3.4"),
                            std::wstring(L"Exception Operation canceled by user. when enumerating info for ") + kFirst,
                            Removing(kSecond, L"5.6.7.8"), L"\t Result = 0 "));
}

using RemovalFailure = StoreTestOf<std::wstring>;
INSTANTIATE_TEST_SUITE_P(Calls, RemovalFailure,
                         testing::Values(L"RemovePackageWithOptionsAsync", L"IAsyncInfo", L"IAsyncInfo.get_Status",
                                         L"put_Completed", L"GetResults", L"get_ExtendedErrorCode", L"get_ErrorText"));

// Proves: Any step of one package fails => logged with text and name, the next package goes
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(RemovalFailure, IsLoggedWithThePackageAndTheNextOneRemovedAllTheSame)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime_.packages.front().faults.fails[GetParam()] = kDenied;
    runtime_.packages.front().faults.texts[GetParam()] = L"No.";
    RemoveStorePackages();
    runtime_.WaitForThreads();
    std::vector<std::wstring> lines = log_.Lines();
    ASSERT_THAT(lines, testing::SizeIs(4));
    EXPECT_EQ(lines[0], Removing(kFirst, L"1.2.3.4"));
    EXPECT_THAT(lines[1],
                AllOf(StartsWith(L"Exception "), EndsWith(std::wstring(L" when enumerating info for ") + kFirst)));
    EXPECT_EQ(lines[3], L"\t Result = 0 ");
    EXPECT_EQ(LiveObjects(), 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_EQ(LiveBasicStrings(), 0);
}

// Proves: Memory runs out for one package => "Unknown expection" with its name
TEST_P(RemovalFailure, OfMemoryIsAnUnknownException)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}};
    runtime_.packages.front().faults.fails[GetParam()] = E_OUTOFMEMORY;
    RemoveStorePackages();
    EXPECT_EQ(log_.Lines().back(), std::wstring(L"Unknown expection occured when enumerating info for ") + kFirst);
}

using RemovalWithoutAnObject = StoreTestOf<std::wstring>;
INSTANTIATE_TEST_SUITE_P(Getters, RemovalWithoutAnObject,
                         testing::Values(L"RemovePackageWithOptionsAsync", L"GetResults"));

TEST_P(RemovalWithoutAnObject, IsAFailureOfThatPackage)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}};
    runtime_.packages.front().faults.nulls = {GetParam()};
    RemoveStorePackages();
    EXPECT_THAT(log_.Lines().back(), AllOf(StartsWith(L"Exception "), EndsWith(kFirst)));
}

TEST_F(StoreRemoval, ManagerWithoutTheSecondInterfaceFailsForEachPackage)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime_.faults.fails[L"IPackageManager2"] = E_NOINTERFACE;
    RemoveStorePackages();
    EXPECT_THAT(log_.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), EndsWith(kFirst), Removing(kSecond, L"5.6.7.8"),
                                          EndsWith(kSecond)));
}

// Proves: Everything is removed => only the factory is kept
TEST_F(StoreRemoval, KeepsNothingButTheFactory)
{
    runtime_.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    RemoveStorePackages();
    runtime_.WaitForThreads();
    EXPECT_EQ(LiveObjects(), 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_THAT(runtime_.Calls(), Contains(L"handler left with 0").Times(2));
}
}  // namespace
}  // namespace repair
