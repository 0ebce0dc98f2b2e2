// What goes wrong in a query, removal or installation: each call of the Windows Runtime in tables.
#include "store/store_install.h"
#include "store/store_packages.h"
#include "store/winrt_runtime.h"
#include "support/store_test.h"
#include "support/system_text.h"
#include "support/test.h"

namespace repair
{
namespace
{
constexpr wchar_t kFirstPackage[] = L"TavikSystemsInc-2.8F31D07A2B6E4_7.0.0.0_x64__abc";
constexpr wchar_t kSecondPackage[] = L"TavikSystemsInc-2.TavikCorvelSoftware_1.0.0.0_x64__abc";
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

struct FailingCall
{
    Operation operation;
    std::wstring method;
};

void PrintTo(const FailingCall& failure, std::ostream* stream)
{
    *stream << failure.operation.name << " " << testing::PrintToString(failure.method);
}

std::vector<FailingCall> Failures(const std::vector<const wchar_t*>& ofPackages,
                                  const std::vector<const wchar_t*>& ofStore)
{
    std::vector<FailingCall> failures;
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

class StoreFailure : public StoreTestOf<FailingCall>
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
    runtime_.AnswerEveryClass(GetParam().method, Failure(kDenied, L"Not for you."));
    EXPECT_EQ(Run(), Given(kDenied));
    EXPECT_THAT(log_.Lines(), ElementsAre(Line(L"Not for you.")));
}

// Proves: Memory runs out while searching (store package query) => "Unknown expection", the zero version
// Proves: Memory runs out while searching (store package removal) => "Unknown expection"
// Proves: Any other exception (memory) => "Unknown expection" is logged, -1
TEST_P(StoreCallFailure, OfMemoryIsAnUnknownException)
{
    runtime_.AnswerEveryClass(GetParam().method, {.result = E_OUTOFMEMORY});
    EXPECT_EQ(Run(), Given(-1));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Unknown expection occured when searching for UWP version of VLT"));
}

// Proves: An error object of an earlier failure is left on the thread => it does not describe the next failure
TEST_P(StoreCallFailure, IsNotDescribedByAnErrorObjectFromBefore)
{
    lab::PutErrorObject({.hasErrorObject = true, .isRestricted = false, .description = L"of an earlier failure"});
    runtime_.AnswerEveryClass(GetParam().method, {.result = kDenied});
    Run();
    EXPECT_THAT(log_.Lines(), ElementsAre(Line(SystemText(kDenied))));
}

TEST_P(StoreCallFailure, IsThrownByTheInnerOperation)
{
    runtime_.AnswerEveryClass(GetParam().method, {.result = kDenied});
    EXPECT_THROW(GetParam().operation.request(), WinrtError);
}

// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(StoreWithoutAnObject, IsAFailureWithoutACrash)
{
    runtime_.AnswerEveryClass(GetParam().method, {});
    EXPECT_EQ(Run(), Given(kNoObject));
    EXPECT_THAT(log_.Lines(), ElementsAre(AllOf(StartsWith(GetParam().operation.before),
                                                testing::EndsWith(GetParam().operation.after))));
}

// A call that fails for the first of two packages.
struct PackageFault
{
    const wchar_t* method;
    Operation operation = kQuery;
    const wchar_t* nameAsRead = kFirstPackage;
};

void PrintTo(const PackageFault& fault, std::ostream* stream)
{
    *stream << fault.operation.name << " " << testing::PrintToString(std::wstring(fault.method));
}

using PackageFailure = StoreTestOf<PackageFault>;
INSTANTIATE_TEST_SUITE_P(
    Calls, PackageFailure,
    testing::Values(PackageFault{L"get_Id", kQuery, L""}, PackageFault{L"get_FullName", kQuery, L""},
                    PackageFault{L"get_Version"}, PackageFault{L"IPackage3"}, PackageFault{L"get_Status"},
                    PackageFault{L"VerifyIsOK"}, PackageFault{L"IPackageManager2", kRemoval},
                    PackageFault{L"RemovePackageAsync", kRemoval}, PackageFault{L"IAsyncInfo", kRemoval},
                    PackageFault{L"IAsyncInfo.get_Status", kRemoval}, PackageFault{L"put_Completed", kRemoval},
                    PackageFault{L"GetResults", kRemoval}, PackageFault{L"get_ExtendedErrorCode", kRemoval},
                    PackageFault{L"get_ErrorText", kRemoval}));

// Proves: Reading one package fails => logged with text and name as far as it was read, the next one is read
// Proves: Any step of one package fails => logged with text and name, the next package goes
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(PackageFailure, IsLoggedWithTheNameAsFarAsReadAndTheNextPackageFollows)
{
    runtime_.packages = {{kFirstPackage, {7, 0, 0, 0}}, {kSecondPackage, {1, 0, 0, 0}}};
    lab::Answer failure = Failure(kDenied, L"Broken.");
    failure.onlyCall = 1;
    runtime_.packages.front().answers[GetParam().method] = failure;
    runtime_.manager.answers[GetParam().method] = failure;
    const bool isQuery = GetParam().operation.run == RunQuery;
    EXPECT_EQ(GetParam().operation.run(), isQuery ? 1 : 0);
    const std::vector<std::wstring> lines = log_.Lines();
    EXPECT_THAT(lines, Contains(std::wstring(L"Exception Broken. when enumerating info for ") + GetParam().nameAsRead));
    EXPECT_EQ(lines.back(),
              isQuery ? std::wstring(L"User has ") + kSecondPackage + L" - version 1.0.0.0" : L"\t Result = 0 ");
}
}  // namespace
}  // namespace repair
