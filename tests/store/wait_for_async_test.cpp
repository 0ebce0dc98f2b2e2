#include "store/wait_for_async.h"
#include "support/store_test.h"
#include "support/test.h"

IMPORTED(CloseHandle, CreateEventW, WaitForSingleObject)

namespace repair
{
namespace
{
using WaitForAsyncOnce = StoreTest;

// A finished wait: the result's error code, or the error thrown.
struct Outcome
{
    HRESULT result = S_FALSE;
    HRESULT thrown = S_OK;
    std::wstring message;
};

Outcome WaitFor(component::IDeploymentOperation* operation)
{
    Outcome outcome;
    try
    {
        // The component and the product declare the interface separately; this cast works because the vtables match.
        void* const object = operation;
        const auto result = WaitForAsync(static_cast<abi::IAsyncOperation<abi::Deployment>*>(object));
        EXPECT_EQ(result.Get()->get_ExtendedErrorCode(&outcome.result), S_OK);
    }
    catch (const WinrtError& error)
    {
        outcome.thrown = error.code;
        outcome.message = error.message;
    }
    EXPECT_EQ(operation->Release(), 0u);
    return outcome;
}

lab::PackageScript Ends(lab::Completion::Kind when, component::AsyncStatus status = component::kCompleted)
{
    lab::PackageScript package;
    package.completion = {when, 5};
    package.end.status = status;
    package.removal.result = 42;
    return package;
}

component::IDeploymentOperation* Removal(const lab::PackageScript& package)
{
    return lab::NewRemoval(package, 0x80000);
}

using WaitForAsyncTimes = StoreTestOf<lab::Completion::Kind>;
INSTANTIATE_TEST_SUITE_P(Times, WaitForAsyncTimes,
                         testing::Values(lab::Completion::kBefore, lab::Completion::kInside, lab::Completion::kLater));

// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(WaitForAsyncTimes, CompletedOperationGivesItsResult)
{
    const Outcome outcome = WaitFor(Removal(Ends(GetParam())));
    EXPECT_EQ(outcome.result, 42);
    EXPECT_EQ(outcome.thrown, S_OK);
}

// Proves: It was canceled => the cancellation error, results are not asked for
TEST_P(WaitForAsyncTimes, CanceledOperationIsThrownWithoutAskingForResults)
{
    lab::PutErrorObject({.hasErrorObject = true, .isRestricted = false, .description = L"of an earlier failure"});
    const Outcome outcome = WaitFor(Removal(Ends(GetParam(), component::kCanceled)));
    EXPECT_EQ(outcome.thrown, static_cast<HRESULT>(0x800704C7));
    EXPECT_EQ(outcome.message, L"Operation canceled by user.");
    EXPECT_THAT(runtime_.Calls(), Not(Contains(L"DeploymentOperation GetResults")));
}

// Proves: It ended with an error => what its results say
TEST_P(WaitForAsyncTimes, FailedOperationThrowsWhatItsResultsSay)
{
    lab::PackageScript package = Ends(GetParam(), component::kError);
    package.end.error = Failure(static_cast<HRESULT>(0x80073CFA), L"The package is in use.\r\n");
    const Outcome outcome = WaitFor(Removal(package));
    EXPECT_EQ(outcome.thrown, static_cast<HRESULT>(0x80073CFA));
    EXPECT_EQ(outcome.message, L"The package is in use.");
}

// Proves: It has ended already => its result, without waiting
TEST_F(WaitForAsyncOnce, FinishedOperationIsNotWaitedFor)
{
    int events = 0;
    auto* const operation = Removal(Ends(lab::Completion::kBefore));
    SUBSTITUTE(CreateEventW)
    create([&](auto...) { return ++events, FailWith(8, HANDLE{nullptr}); });
    EXPECT_EQ(WaitFor(operation).result, 42);
    EXPECT_EQ(events, 0);
    EXPECT_THAT(runtime_.Calls(), Not(Contains(L"DeploymentOperation put_Completed")));
}

// Proves: It still runs => waited for without limit on an event of its own, which is closed; the handler may come inside the registration, or much later
TEST_F(WaitForAsyncOnce, WaitsOnAnUnnamedManualResetEventWithoutALimitAndClosesIt)
{
    HANDLE made = nullptr;
    int waits = 0;
    std::atomic<int> closed = 0;
    auto* const operation = Removal(Ends(lab::Completion::kLater));
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        if (made != nullptr)
        {
            return create.Original()(security, manual, set, name);  // of another thread
        }
        EXPECT_EQ(std::tuple(security, manual, set, name), std::tuple(nullptr, TRUE, FALSE, nullptr));
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
    WaitFor(operation);
    EXPECT_EQ(waits, 1);
    EXPECT_EQ(closed, 0);
    lab::RecordWhatTheProgramStillHolds();  // the last reference of the handler
    EXPECT_EQ(closed, 1);
}

using WaitForAsyncHandler = StoreTestOf<lab::Completion::Kind>;
INSTANTIATE_TEST_SUITE_P(Times, WaitForAsyncHandler,
                         testing::Values(lab::Completion::kInside, lab::Completion::kThread, lab::Completion::kLater));

// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(WaitForAsyncHandler, IsHeldByTheWaiterUntilItIsCalled)
{
    ULONG references = 0;
    runtime_.onCall = [&references](const std::wstring& call) {
        if (call.starts_with(L"DeploymentOperation calls the handler"))
        {
            IUnknown* const handler = lab::TheKept().back().object;
            handler->AddRef();
            references = handler->Release();
        }
    };
    WaitFor(Removal(Ends(GetParam())));
    EXPECT_EQ(references, 3u);  // the waiter, the operation and the list of kept objects
}

TEST_F(WaitForAsyncOnce, HandlerIsADelegateSoItIsNotInspectable)
{
    WaitFor(Removal(Ends(lab::Completion::kInside)));
    IUnknown* const handler = lab::TheKept().back().object;
    void* found = nullptr;
    EXPECT_EQ(handler->QueryInterface(IID_IUnknown, &found), S_OK);
    EXPECT_EQ(found, handler);
    handler->Release();
    EXPECT_EQ(handler->QueryInterface(component::IInspectable::kIid, &found), E_NOINTERFACE);
    EXPECT_EQ(found, nullptr);
}

struct IHandler : component::ICompletedHandler
{
    static constexpr GUID kIid = component::IDeploymentOperation::kHandlerIid;

protected:
    ~IHandler() = default;
};

class HandlerThatIsNotAgile final : public component::ComObject<IHandler>
{
public:
    ~HandlerThatIsNotAgile() override = default;
    HRESULT STDMETHODCALLTYPE Invoke(component::IInspectable*, INT32) override { return S_OK; }
};

// The tests of the Store rely on it: the component refuses what Windows refuses.
TEST_F(WaitForAsyncOnce, ComponentRefusesEarlyResultsAndAnotherHandler)
{
    WaitFor(Removal(Ends(lab::Completion::kInside)));
    auto* const agile = static_cast<component::ICompletedHandler*>(lab::TheKept().back().object);
    lab::TheKept().pop_back();  // its reference is released below
    HandlerThatIsNotAgile unwilling;
    component::IInspectable* result = nullptr;
    auto* const operation = Removal(Ends(lab::Completion::kInside));
    EXPECT_EQ(operation->GetResults(&result), static_cast<HRESULT>(0x8000000E));
    EXPECT_EQ(operation->put_Completed(&unwilling), static_cast<HRESULT>(0x8000001C));
    EXPECT_EQ(operation->put_Completed(agile), S_OK);
    EXPECT_EQ(operation->put_Completed(agile), static_cast<HRESULT>(0x80000018));
    EXPECT_EQ(operation->Release(), 0u);
    agile->Release();
}

TEST_F(WaitForAsyncOnce, WithoutAnEventTheSystemsErrorIsThrown)
{
    auto* const operation = Removal(Ends(lab::Completion::kInside));
    SUBSTITUTE(CreateEventW)
    create([](auto...) { return FailWith(ERROR_ACCESS_DENIED, HANDLE{nullptr}); });
    EXPECT_EQ(WaitFor(operation).thrown, kDenied);
}

using WaitForAsyncFailure = StoreTestOf<std::wstring>;
INSTANTIATE_TEST_SUITE_P(Calls, WaitForAsyncFailure,
                         testing::Values(L"IAsyncInfo", L"IAsyncInfo.get_Status", L"put_Completed", L"GetResults"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: A call of it fails, there is no event, or a result is missing => an error
TEST_P(WaitForAsyncFailure, IsThrown)
{
    lab::PackageScript package = Ends(lab::Completion::kLater);
    package.answers[GetParam()].result = kDenied;
    EXPECT_EQ(WaitFor(Removal(package)).thrown, kDenied);
}

TEST_F(WaitForAsyncOnce, SuccessWithoutAResultIsThrownAsABadPointer)
{
    lab::PackageScript package = Ends(lab::Completion::kBefore);
    package.answers[L"GetResults"] = {};
    EXPECT_EQ(WaitFor(Removal(package)).thrown, static_cast<HRESULT>(0x80004003));
}
}  // namespace
}  // namespace repair
