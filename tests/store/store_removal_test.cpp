#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/store_packages.h"
#include "store/winrt_runtime.h"
#include "support/fake_runtime.h"
#include "support/log_capture.h"

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

std::wstring Removing(const wchar_t* name, const wchar_t* version)
{
    return std::wstring(L"Remvoing ") + name + L" - version " + version;
}

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Two matching packages => removed one after the other in the system's order, for all users, each with its two lines
TEST(RemoveStorePackages, RemovesEveryMatchingPackageForAllUsersOneAfterTheOther)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}, {L"Other.App", {1, 0, 0, 0}}, {kSecond, {5, 6, 7, 8}}};
    LogCapture log;
    RemoveStorePackages();
    runtime.WaitForThreads();
    std::vector<std::wstring> calls = runtime.Calls();
    std::erase_if(calls, [](const std::wstring& call) { return call.starts_with(L"handler"); });
    EXPECT_THAT(calls, ElementsAre(L"activate Windows.Management.Deployment.PackageManager", L"create", L"find",
                                   std::wstring(L"remove ") + kFirst + L" 0x80000", L"complete", L"results",
                                   std::wstring(L"remove ") + kSecond + L" 0x80000", L"complete", L"results"));
    EXPECT_THAT(log.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), L"\t Result = 0 ", Removing(kSecond, L"5.6.7.8"),
                                         L"\t Result = 0 "));
}

// Proves: No matching package (store package removal) => nothing is logged, nothing removed
TEST(RemoveStorePackages, WithoutAMatchingPackageNothingIsLoggedOrRemoved)
{
    FakeRuntime runtime;
    runtime.packages = {{L"Other.App", {1, 0, 0, 0}}, {L"", {2, 0, 0, 0}}};
    runtime.packages.back().faults.nulls = {"GetFullName"};
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_THAT(runtime.Calls(), testing::Each(Not(StartsWith(L"remove"))));
}

// Proves: Disabled packages => removed like any other, their status is not asked for
TEST(RemoveStorePackages, DisabledPackagesAreRemovedLikeAnyOtherAndNobodyAsksForTheirStatus)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}, false}};
    runtime.packages.front().faults.fails["GetStatus"] = kDenied;
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), L"\t Result = 0 "));
}

// Proves: The system rejects a removal => signed code and text in the result line, the next package goes
TEST(RemoveStorePackages, RefusedRemovalShowsAsItsSignedCodeAndText)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime.packages.front().removalError = static_cast<HRESULT>(0x80073CFA);
    runtime.packages.front().removalText = L"Removal failed.";
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), L"\t Result = -2147009286 Removal failed.",
                                         Removing(kSecond, L"5.6.7.8"), L"\t Result = 0 "));
}

// Proves: A removal is canceled => logged with the full name, the next package goes
TEST(RemoveStorePackages, CanceledRemovalIsLoggedAndTheNextPackageRemovedAllTheSame)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime.packages.front().removal.status = 2;
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines(),
                ElementsAre(Removing(kFirst, L"1.2.3.4"),
                            std::wstring(L"Exception Operation canceled by user. when enumerating info for ") + kFirst,
                            Removing(kSecond, L"5.6.7.8"), L"\t Result = 0 "));
}

class RemovalFailure : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Calls, RemovalFailure,
                         testing::Values("RemovePackage", "QueryInterface(IAsyncInfo)", "GetAsyncStatus",
                                         "PutCompleted", "GetResults", "GetExtendedErrorCode", "GetErrorText"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Any step of one package fails => logged with text and name, the next package goes
TEST_P(RemovalFailure, IsLoggedWithThePackageAndTheNextOneRemovedAllTheSame)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime.packages.front().faults.fails[GetParam()] = kDenied;
    runtime.packages.front().faults.texts[GetParam()] = L"No.";
    LogCapture log;
    RemoveStorePackages();
    runtime.WaitForThreads();
    std::vector<std::wstring> lines = log.Lines();
    ASSERT_THAT(lines, testing::SizeIs(4));
    EXPECT_EQ(lines[0], Removing(kFirst, L"1.2.3.4"));
    EXPECT_THAT(lines[1],
                AllOf(StartsWith(L"Exception "), EndsWith(std::wstring(L" when enumerating info for ") + kFirst)));
    EXPECT_EQ(lines[3], L"\t Result = 0 ");
    EXPECT_EQ(component::liveObjects, 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_EQ(LiveBasicStrings(), 0);
}

// Proves: Memory runs out for one package => "Unknown expection" with its name
TEST_P(RemovalFailure, OfMemoryIsAnUnknownException)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}};
    runtime.packages.front().faults.fails[GetParam()] = E_OUTOFMEMORY;
    LogCapture log;
    RemoveStorePackages();
    EXPECT_EQ(log.Lines().back(), std::wstring(L"Unknown expection occured when enumerating info for ") + kFirst);
}

class RemovalWithoutAnObject : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Getters, RemovalWithoutAnObject, testing::Values("RemovePackage", "GetResults"));

TEST_P(RemovalWithoutAnObject, IsAFailureOfThatPackage)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}};
    runtime.packages.front().faults.nulls = {GetParam()};
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines().back(), AllOf(StartsWith(L"Exception "), EndsWith(kFirst)));
}

TEST(RemoveStorePackages, ManagerWithoutTheSecondInterfaceFailsForEachPackage)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    runtime.faults.fails["QueryInterface(IPackageManager2)"] = E_NOINTERFACE;
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines(), ElementsAre(Removing(kFirst, L"1.2.3.4"), EndsWith(kFirst), Removing(kSecond, L"5.6.7.8"),
                                         EndsWith(kSecond)));
}

class EnumerationFailure : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Calls, EnumerationFailure,
                         testing::Values("activation", "ActivateInstance", "FindPackages", "First", "GetHasCurrent",
                                         "GetCurrent", "MoveNext"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: The manager cannot be created, or the enumeration fails (store package removal) => one line in square brackets; what was removed before stays removed; the repair is still a success
TEST_P(EnumerationFailure, EndsTheRemovalWithOneLineInSquareBrackets)
{
    FakeRuntime runtime;
    runtime.packages = {{L"Other.App", {1, 2, 3, 4}}};
    runtime.faults.fails[GetParam()] = kDenied;
    runtime.faults.texts[GetParam()] = L"Not for you.";
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines(), ElementsAre(L"Exception [Not for you.] when searching for UWP version of VLT"));
}

// Proves: Memory runs out while searching (store package removal) => "Unknown expection"
TEST_P(EnumerationFailure, OfMemoryIsAnUnknownException)
{
    FakeRuntime runtime;
    runtime.packages = {{L"Other.App", {1, 2, 3, 4}}};
    runtime.faults.fails[GetParam()] = E_OUTOFMEMORY;
    LogCapture log;
    RemoveStorePackages();
    EXPECT_THAT(log.Lines(), ElementsAre(L"Unknown expection occured when searching for UWP version of VLT"));
}

TEST_P(EnumerationFailure, IsThrownByTheInnerRemoval)
{
    FakeRuntime runtime;
    runtime.packages = {{L"Other.App", {1, 2, 3, 4}}};
    runtime.faults.fails[GetParam()] = kDenied;
    EXPECT_THROW(RemoveMatchingStorePackages(), WinrtError);
}

// Proves: Everything is removed => only the factory is kept
TEST(RemoveStorePackages, KeepsNothingButTheFactory)
{
    FakeRuntime runtime;
    runtime.packages = {{kFirst, {1, 2, 3, 4}}, {kSecond, {5, 6, 7, 8}}};
    RemoveStorePackages();
    runtime.WaitForThreads();
    EXPECT_EQ(component::liveObjects, 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_THAT(runtime.Calls(), Contains(L"handler left with 0").Times(2));
}
}  // namespace
}  // namespace repair
