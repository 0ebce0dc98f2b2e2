// What goes wrong in a query, removal or installation as a whole: each call that they have in common with one table.
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/store_install.h"
#include "store/store_packages.h"
#include "store/winrt_runtime.h"
#include "support/store_test.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

namespace repair
{
namespace
{
constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);
constexpr HRESULT kNoObject = static_cast<HRESULT>(0x80004003);

// One of the three operations. `run` never throws and returns a number; `request` lets errors out.
struct Operation
{
    const char* name;
    std::int32_t (*run)();
    void (*request)();
    bool givesCode;         // `run` returns the code of the failure, or -1 without one; otherwise 0
    const wchar_t* before;  // the log line around the text of a failure
    const wchar_t* after;
};

std::int32_t RunQuery()
{
    const PackageVersion version = QueryStorePackageVersion();
    return version.Major + version.Minor + version.Build + version.Revision;
}

std::int32_t RunRemoval()
{
    RemoveStorePackages();
    return 0;
}

constexpr Operation kQuery = {"query", RunQuery,      [] { FindStorePackageVersion(); },
                              false,   L"Exception ", L" when searching for UWP version of VLT"};
constexpr Operation kRemoval = {"removal", RunRemoval,     RemoveMatchingStorePackages,
                                false,     L"Exception [", L"] when searching for UWP version of VLT"};
constexpr Operation kInstall = {
    "installation", [] { return InstallStoreApplication(nullptr); }, [] { RequestStoreInstall(nullptr); }, true,
    L"Exception [", L"] when searching for UWP version of VLT"};

struct Failure
{
    Operation operation;
    std::wstring method;
};

void PrintTo(const Failure& failure, std::ostream* stream)
{
    *stream << failure.operation.name << " " << testing::PrintToString(failure.method);
}

std::vector<Failure> Failures(const std::vector<const wchar_t*>& ofPackages, const std::vector<const wchar_t*>& ofStore)
{
    std::vector<Failure> failures;
    for (const wchar_t* method : ofPackages)
    {
        failures.push_back({kQuery, method});
        failures.push_back({kRemoval, method});
    }
    for (const wchar_t* method : ofStore)
    {
        failures.push_back({kInstall, method});
    }
    return failures;
}

class StoreFailure : public StoreTestOf<Failure>
{
protected:
    StoreFailure() { runtime_.packages = {{L"Other.App", {1, 2, 3, 4}}}; }

    std::int32_t Run() const { return GetParam().operation.run(); }
    std::int32_t Given(HRESULT code) const { return GetParam().operation.givesCode ? code : 0; }
    std::wstring Line(const std::wstring& text) const
    {
        return GetParam().operation.before + text + GetParam().operation.after;
    }
};
using StoreCallFailure = StoreFailure;
using StoreWithoutAnObject = StoreFailure;

INSTANTIATE_TEST_SUITE_P(Calls, StoreCallFailure,
                         testing::ValuesIn(Failures({L"activation", L"ActivateInstance", L"FindPackages", L"First",
                                                     L"get_HasCurrent", L"get_Current", L"MoveNext"},
                                                    {L"activation", L"GetDefault", L"IStoreContext3",
                                                     L"DownloadAndInstallStorePackagesAsync", L"IAsyncInfo",
                                                     L"IAsyncInfo.get_Status", L"put_Completed", L"GetResults",
                                                     L"get_OverallState"})));
INSTANTIATE_TEST_SUITE_P(Getters, StoreWithoutAnObject,
                         testing::ValuesIn(Failures({L"activation", L"ActivateInstance", L"FindPackages", L"First"},
                                                    {L"activation", L"DownloadAndInstallStorePackagesAsync",
                                                     L"GetResults"})));

// Proves: The manager cannot be created, or the enumeration fails (store package query) => logged with its text, the zero version
// Proves: The manager cannot be created, or the enumeration fails (store package removal) => one line in square brackets; what was removed before stays removed; the repair is still a success
// Proves: Any call or the operation fails => logged with its text, its code
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(StoreCallFailure, IsLoggedWithItsText)
{
    runtime_.faults.fails[GetParam().method] = kDenied;
    runtime_.faults.texts[GetParam().method] = L"Not for you.";
    EXPECT_EQ(Run(), Given(kDenied));
    EXPECT_THAT(log_.Lines(), ElementsAre(Line(L"Not for you.")));
    runtime_.WaitForThreads();
    EXPECT_LE(LiveObjects(), 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_EQ(LiveBasicStrings(), 0);
}

// Proves: Memory runs out while searching (store package query) => "Unknown expection", the zero version
// Proves: Memory runs out while searching (store package removal) => "Unknown expection"
// Proves: Any other exception (memory) => "Unknown expection" is logged, -1
TEST_P(StoreCallFailure, OfMemoryIsAnUnknownException)
{
    runtime_.faults.fails[GetParam().method] = E_OUTOFMEMORY;
    EXPECT_EQ(Run(), Given(-1));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Unknown expection occured when searching for UWP version of VLT"));
}

TEST_P(StoreCallFailure, IsThrownByTheInnerOperation)
{
    runtime_.faults.fails[GetParam().method] = kDenied;
    EXPECT_THROW(GetParam().operation.request(), WinrtError);
}

// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(StoreWithoutAnObject, IsAFailureWithoutACrash)
{
    runtime_.faults.nulls = {GetParam().method};
    EXPECT_EQ(Run(), Given(kNoObject));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(AllOf(StartsWith(GetParam().operation.before), EndsWith(GetParam().operation.after))));
}
}  // namespace
}  // namespace repair
