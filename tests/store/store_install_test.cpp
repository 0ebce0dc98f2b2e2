#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/store_install.h"
#include "store/winrt_runtime.h"
#include "support/fake_runtime.h"
#include "support/log_capture.h"
#include "support/system_text.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace repair
{
namespace
{
constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

HWND Window(UINT_PTR number)
{
    return reinterpret_cast<HWND>(number);
}

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: The Store is asked => once, for the one product, tied to the given window; nothing is logged
TEST(InstallStoreApplication, AsksTheStoreOnceForTheOneProductTiedToTheWindow)
{
    FakeRuntime runtime;
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(Window(4711)), 0);
    runtime.WaitForThreads();
    EXPECT_THAT(runtime.Calls(),
                ElementsAre(L"activate Windows.Services.Store.StoreContext", L"default", L"window 4711",
                            L"install 9PQ4XK7ZT2MV", L"complete", L"results", L"handler left with 0"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: A null window => is handed on, the Store decides
TEST(InstallStoreApplication, NullWindowIsHandedOnAsItIs)
{
    FakeRuntime runtime;
    EXPECT_EQ(InstallStoreApplication(nullptr), 0);
    EXPECT_THAT(runtime.Calls(), Contains(L"window 0"));
}

class OverallState : public testing::TestWithParam<std::int32_t>
{
};
INSTANTIATE_TEST_SUITE_P(States, OverallState, testing::Range(0, 10));

// Proves: The overall state is Completed => 0
// Proves: Any other overall state (canceled, other error, Wi-Fi required, ...) => -1, nothing is logged here
TEST_P(OverallState, OnlyCompletedIsSuccessAndNothingIsLogged)
{
    FakeRuntime runtime;
    runtime.updateState = GetParam();
    runtime.update.when = Completion::kInside;
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), GetParam() == 3 ? 0 : -1);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

class StoreCompletion : public testing::TestWithParam<Completion>
{
};
INSTANTIATE_TEST_SUITE_P(Times, StoreCompletion,
                         testing::Values(Completion::kBefore, Completion::kInside, Completion::kLater));

// Proves: The installation takes long => it is waited for, the window lives on
TEST_P(StoreCompletion, IsWaitedForWheneverItComes)
{
    FakeRuntime runtime;
    runtime.update.when = GetParam();
    EXPECT_EQ(InstallStoreApplication(nullptr), 0);
}

// Proves: The operation is canceled => logged with the text of the cancellation, its code
TEST_P(StoreCompletion, CanceledOperationGivesTheCancellationErrorAndItsLine)
{
    FakeRuntime runtime;
    runtime.update = {GetParam(), 2};
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), static_cast<HRESULT>(0x800704C7));
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"Exception [Operation canceled by user.] when searching for UWP version of VLT"));
}

// Proves: No store context, or one without windows => "Store context does not implement ..." is logged, -1
TEST(InstallStoreApplication, NoContextIsLoggedAndGivesMinusOne)
{
    FakeRuntime runtime;
    runtime.faults.nulls = {"GetDefault"};
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), -1);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Error: Store context does not implement IInitializeWithWindow."));
}

TEST(InstallStoreApplication, ContextWithoutTheWindowInterfaceIsLoggedAndGivesMinusOne)
{
    FakeRuntime runtime;
    runtime.faults.fails["QueryInterface(IInitializeWithWindow)"] = E_NOINTERFACE;
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), -1);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Error: Store context does not implement IInitializeWithWindow."));
    EXPECT_THAT(runtime.Calls(), ElementsAre(L"activate Windows.Services.Store.StoreContext", L"default"));
    EXPECT_EQ(component::liveObjects, 1);
}

// Proves: The window is refused => "Unable to initialize with window." is logged, that code; the Store is not asked
TEST(InstallStoreApplication, WindowThatIsRefusedGivesThatError)
{
    FakeRuntime runtime;
    runtime.faults.fails["Initialize"] = static_cast<HRESULT>(0x80070578);
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), static_cast<HRESULT>(0x80070578));
    EXPECT_THAT(log.Lines(), ElementsAre(L"Error: Unable to initialize with window."));
    EXPECT_EQ(component::liveObjects, 1);
}

class StoreFailure : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Calls, StoreFailure,
                         testing::Values("activation", "GetDefault", "QueryInterface(IStoreContext3)",
                                         "DownloadAndInstall", "QueryInterface(IAsyncInfo)", "GetAsyncStatus",
                                         "PutCompleted", "GetResults", "GetOverallState"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Any call or the operation fails => logged with its text, its code
TEST_P(StoreFailure, GivesItsErrorAndTheTextOfTheSearch)
{
    FakeRuntime runtime;
    runtime.faults.fails[GetParam()] = kDenied;
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), kDenied);
    EXPECT_THAT(log.Lines(),
                ElementsAre(L"Exception [" + SystemText(kDenied) + L"] when searching for UWP version of VLT"));
    runtime.WaitForThreads();
    EXPECT_LE(component::liveObjects, 1);
    EXPECT_EQ(LiveStrings(), 0);
}

// Proves: Any other exception (memory) => "Unknown expection" is logged, -1
TEST_P(StoreFailure, OfMemoryIsAnUnknownException)
{
    FakeRuntime runtime;
    runtime.faults.fails[GetParam()] = E_OUTOFMEMORY;
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), -1);
    EXPECT_THAT(log.Lines(), ElementsAre(L"Unknown expection occured when searching for UWP version of VLT"));
}

TEST_P(StoreFailure, IsThrownByTheInnerRequest)
{
    FakeRuntime runtime;
    runtime.faults.fails[GetParam()] = kDenied;
    EXPECT_THROW(RequestStoreInstall(nullptr), WinrtError);
}

TEST(InstallStoreApplication, ErrorOfTheOperationComesWithTheOperationsText)
{
    FakeRuntime runtime;
    runtime.update.status = 3;
    runtime.faults.fails["GetResults"] = static_cast<HRESULT>(0x80073CF1);
    runtime.faults.texts["GetResults"] = L"The Store is closed.";
    LogCapture log;
    EXPECT_EQ(InstallStoreApplication(nullptr), static_cast<HRESULT>(0x80073CF1));
    EXPECT_THAT(log.Lines(), ElementsAre(L"Exception [The Store is closed.] when searching for UWP version of VLT"));
}

class StoreWithoutAnObject : public testing::TestWithParam<std::string>
{
};
INSTANTIATE_TEST_SUITE_P(Getters, StoreWithoutAnObject,
                         testing::Values("activation", "DownloadAndInstall", "GetResults"));

// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_P(StoreWithoutAnObject, IsAFailureWithoutACrash)
{
    FakeRuntime runtime;
    runtime.faults.nulls = {GetParam()};
    EXPECT_EQ(InstallStoreApplication(nullptr), static_cast<HRESULT>(0x80004003));
}

// Proves: Several installations in one process => the factory is fetched once, the context each time; nothing else is kept
TEST(InstallStoreApplication, FactoryIsFetchedOncePerProcessAndTheContextEveryTime)
{
    FakeRuntime runtime;
    InstallStoreApplication(nullptr);
    InstallStoreApplication(nullptr);
    EXPECT_THAT(runtime.Calls(), Contains(L"activate Windows.Services.Store.StoreContext").Times(1));
    EXPECT_THAT(runtime.Calls(), Contains(L"default").Times(2));
}

// Proves: The thread has no apartment (store installation) => it gets one
TEST(InstallStoreApplication, ThreadWithoutAnApartmentIsMadePartOfTheMultithreadedOne)
{
    FakeRuntime runtime;
    runtime.withoutApartment = static_cast<HRESULT>(0x800401F0);
    EXPECT_EQ(InstallStoreApplication(nullptr), 0);
    EXPECT_THAT(runtime.Calls(), Contains(L"mta").Times(1));
    EXPECT_THAT(runtime.Calls(), Contains(L"activate Windows.Services.Store.StoreContext").Times(2));
}

TEST(InstallStoreApplication, StoreMayReadTheListAfterTheCallHasReturned)
{
    FakeRuntime runtime;
    component::StringIterable* kept = nullptr;
    runtime.onUpdate = [&kept](component::StringIterable* ids) { (kept = ids)->AddRef(); };
    InstallStoreApplication(nullptr);
    component::StringIterator* iterator = nullptr;
    ASSERT_EQ(kept->First(&iterator), S_OK);
    component::String id = nullptr;
    EXPECT_EQ(iterator->GetCurrent(&id), S_OK);
    EXPECT_EQ(TextOf(id), L"9PQ4XK7ZT2MV");
    DeleteString(id);
    EXPECT_EQ(iterator->Release(), 0u);
    EXPECT_EQ(kept->Release(), 0u);
}

TEST(InstallStoreApplication, KeepsNothingButTheFactory)
{
    FakeRuntime runtime;
    InstallStoreApplication(nullptr);
    runtime.WaitForThreads();
    EXPECT_EQ(component::liveObjects, 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_THAT(runtime.Calls(), Contains(L"handler left with 0"));
}
}  // namespace
}  // namespace repair
