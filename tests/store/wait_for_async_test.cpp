#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/wait_for_async.h"
#include "support/store_test.h"

using testing::Contains;
using testing::ElementsAre;

IMPORTED(CreateEventW)
IMPORTED(CloseHandle)
IMPORTED(WaitForSingleObject)

namespace repair
{
namespace
{
constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

using WaitForAsyncOnce = StoreTest;

// A finished wait: the result's error code, or the error thrown.
struct Outcome
{
    HRESULT result = S_FALSE;
    HRESULT thrown = S_OK;
    std::wstring message;
};

Outcome WaitFor(const FakePackage& package)
{
    auto* const operation = MakeRemoval(package);
    Outcome outcome;
    try
    {
        // The component's view of the object becomes the caller's: only the layout of the tables joins them.
        void* const object = operation;
        const auto result = WaitForAsync(static_cast<abi::IAsyncOperation<abi::Deployment>*>(object));
        EXPECT_EQ(result.Get()->get_ExtendedErrorCode(&outcome.result), S_OK);
    }
    catch (const WinrtError& error)
    {
        outcome.thrown = error.code;
        outcome.message = error.message;
    }
    FakeRuntime::Current().WaitForThreads();
    EXPECT_EQ(operation->Release(), 0u);
    EXPECT_EQ(LiveObjects(), 0);
    return outcome;
}

FakePackage Ends(Completion when, std::int32_t status)
{
    FakePackage package;
    package.removal = {when, status};
    package.removalError = 42;
    return package;
}

using WaitForAsyncTimes = StoreTestOf<Completion>;
INSTANTIATE_TEST_SUITE_P(Times, WaitForAsyncTimes,
                         testing::Values(Completion::kBefore, Completion::kInside, Completion::kLater));

// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(WaitForAsyncTimes, CompletedOperationGivesItsResult)
{
    const Outcome outcome = WaitFor(Ends(GetParam(), 1));
    EXPECT_EQ(outcome.result, 42);
    EXPECT_EQ(outcome.thrown, S_OK);
}

// Proves: It was canceled => the cancellation error, results are not asked for
TEST_P(WaitForAsyncTimes, CanceledOperationIsThrownWithoutAskingForResults)
{
    const Outcome outcome = WaitFor(Ends(GetParam(), 2));
    EXPECT_EQ(outcome.thrown, static_cast<HRESULT>(0x800704C7));
    EXPECT_EQ(outcome.message, L"Operation canceled by user.");
    EXPECT_THAT(runtime_.Calls(), testing::Not(Contains(L"results")));
}

// Proves: It ended with an error => what its results say
TEST_P(WaitForAsyncTimes, FailedOperationThrowsWhatItsResultsSay)
{
    FakePackage package = Ends(GetParam(), 3);
    package.faults.fails[L"GetResults"] = static_cast<HRESULT>(0x80073CFA);
    package.faults.texts[L"GetResults"] = L"The package is in use.\r\n";
    const Outcome outcome = WaitFor(package);
    EXPECT_EQ(outcome.thrown, static_cast<HRESULT>(0x80073CFA));
    EXPECT_EQ(outcome.message, L"The package is in use.");
}

// Proves: It has ended already => its result, without waiting
TEST_F(WaitForAsyncOnce, FinishedOperationIsNotWaitedFor)
{
    int events = 0;
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
        ++events;
        return FailWith(8, HANDLE{nullptr});
    });
    WaitFor(Ends(Completion::kBefore, 1));
    EXPECT_EQ(events, 0);
    EXPECT_THAT(runtime_.Calls(), ElementsAre(L"results"));
}

// Proves: It still runs => waited for without limit on an event of its own, which is closed; the handler may come inside the registration, or much later
TEST_F(WaitForAsyncOnce, WaitsOnAnUnnamedManualResetEventWithoutALimitAndClosesIt)
{
    HANDLE made = nullptr;
    int waits = 0;
    std::atomic<int> closed = 0;
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        if (made != nullptr)
        {
            return create.Original()(security, manual, set, name);  // of a thread that starts
        }
        EXPECT_EQ(security, nullptr);
        EXPECT_EQ(manual, TRUE);
        EXPECT_EQ(set, FALSE);
        EXPECT_EQ(name, nullptr);
        made = create.Original()(security, manual, set, name);
        return made;
    });
    SUBSTITUTE(WaitForSingleObject)
    wait([&](HANDLE handle, DWORD milliseconds) {
        if (handle == made)
        {
            ++waits;
            EXPECT_EQ(milliseconds, 0xFFFFFFFFu);
        }
        return wait.Original()(handle, milliseconds);
    });
    SUBSTITUTE(CloseHandle)
    close([&](HANDLE handle) {
        closed += handle == made ? 1 : 0;
        return close.Original()(handle);
    });
    WaitFor(Ends(Completion::kLater, 1));
    EXPECT_EQ(waits, 1);
    EXPECT_EQ(closed, 1);
}

TEST_F(WaitForAsyncOnce, HandlerOutlivesTheWaiterAsLongAsTheOperationKeepsIt)
{
    WaitFor(Ends(Completion::kLater, 1));
    EXPECT_THAT(runtime_.Calls(), ElementsAre(L"complete", L"results", L"handler left with 0"));
}

TEST_F(WaitForAsyncOnce, HandlerCalledInsideTheRegistrationIsStillHeldByTheWaiter)
{
    WaitFor(Ends(Completion::kInside, 1));
    EXPECT_THAT(runtime_.Calls(), ElementsAre(L"complete", L"handler left with 1", L"results"));
}

TEST_F(WaitForAsyncOnce, WithoutAnEventTheSystemsErrorIsThrown)
{
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
        return FailWith(ERROR_ACCESS_DENIED, HANDLE{nullptr});
    });
    EXPECT_EQ(WaitFor(Ends(Completion::kInside, 1)).thrown, kDenied);
}

using WaitForAsyncFailure = StoreTestOf<std::wstring>;
INSTANTIATE_TEST_SUITE_P(Calls, WaitForAsyncFailure,
                         testing::Values(L"IAsyncInfo", L"IAsyncInfo.get_Status", L"put_Completed", L"GetResults"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: A call of it fails, there is no event, or a result is missing => an error
TEST_P(WaitForAsyncFailure, IsThrown)
{
    FakePackage package = Ends(Completion::kLater, 1);
    package.faults.fails[GetParam()] = kDenied;
    EXPECT_EQ(WaitFor(package).thrown, kDenied);
}

TEST_F(WaitForAsyncOnce, SuccessWithoutAResultIsThrownAsABadPointer)
{
    FakePackage package = Ends(Completion::kBefore, 1);
    package.faults.nulls = {L"GetResults"};
    EXPECT_EQ(WaitFor(package).thrown, static_cast<HRESULT>(0x80004003));
}
}  // namespace
}  // namespace repair
