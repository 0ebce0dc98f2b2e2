#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/store_install.h"
#include "store/winrt_runtime.h"
#include "support/store_test.h"
#include "support/system_text.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace repair
{
namespace
{
constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

using StoreInstall = StoreTest;

HWND Window(UINT_PTR number)
{
    return reinterpret_cast<HWND>(number);
}

// Proves: The Store is asked => once, for the one product, tied to the given window; nothing is logged
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_F(StoreInstall, AsksTheStoreOnceForTheOneProductTiedToTheWindow)
{
    EXPECT_EQ(InstallStoreApplication(Window(4711)), 0);
    runtime_.WaitForThreads();
    EXPECT_THAT(runtime_.Calls(),
                ElementsAre(L"activate Windows.Services.Store.StoreContext", L"default", L"window 4711",
                            L"install 9PQ4XK7ZT2MV", L"complete", L"results", L"handler left with 0"));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

// Proves: A null window => is handed on, the Store decides
TEST_F(StoreInstall, NullWindowIsHandedOnAsItIs)
{
    EXPECT_EQ(InstallStoreApplication(nullptr), 0);
    EXPECT_THAT(runtime_.Calls(), Contains(L"window 0"));
}

using OverallState = StoreTestOf<std::int32_t>;
INSTANTIATE_TEST_SUITE_P(States, OverallState, testing::Range(0, 10));

// Proves: The overall state is Completed => 0
// Proves: Any other overall state (canceled, other error, Wi-Fi required, ...) => -1, nothing is logged here
TEST_P(OverallState, OnlyCompletedIsSuccessAndNothingIsLogged)
{
    runtime_.updateState = GetParam();
    runtime_.update.when = Completion::kInside;
    EXPECT_EQ(InstallStoreApplication(nullptr), GetParam() == 3 ? 0 : -1);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

using StoreCompletion = StoreTestOf<Completion>;
INSTANTIATE_TEST_SUITE_P(Times, StoreCompletion,
                         testing::Values(Completion::kBefore, Completion::kInside, Completion::kLater));

// Proves: The installation takes long => it is waited for, the window lives on
TEST_P(StoreCompletion, IsWaitedForWheneverItComes)
{
    runtime_.update.when = GetParam();
    EXPECT_EQ(InstallStoreApplication(nullptr), 0);
}

// Proves: The operation is canceled => logged with the text of the cancellation, its code
TEST_P(StoreCompletion, CanceledOperationGivesTheCancellationErrorAndItsLine)
{
    runtime_.update = {GetParam(), 2};
    EXPECT_EQ(InstallStoreApplication(nullptr), static_cast<HRESULT>(0x800704C7));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"Exception [Operation canceled by user.] when searching for UWP version of VLT"));
}

// Proves: No store context, or one without windows => "Store context does not implement ..." is logged, -1
TEST_F(StoreInstall, NoContextIsLoggedAndGivesMinusOne)
{
    runtime_.faults.nulls = {L"GetDefault"};
    EXPECT_EQ(InstallStoreApplication(nullptr), -1);
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Error: Store context does not implement IInitializeWithWindow."));
}

TEST_F(StoreInstall, ContextWithoutTheWindowInterfaceIsLoggedAndGivesMinusOne)
{
    runtime_.faults.fails[L"IInitializeWithWindow"] = E_NOINTERFACE;
    EXPECT_EQ(InstallStoreApplication(nullptr), -1);
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Error: Store context does not implement IInitializeWithWindow."));
    EXPECT_THAT(runtime_.Calls(), ElementsAre(L"activate Windows.Services.Store.StoreContext", L"default"));
    EXPECT_EQ(LiveObjects(), 1);
}

// Proves: The window is refused => "Unable to initialize with window." is logged, that code; the Store is not asked
TEST_F(StoreInstall, WindowThatIsRefusedGivesThatError)
{
    runtime_.faults.fails[L"Initialize"] = static_cast<HRESULT>(0x80070578);
    EXPECT_EQ(InstallStoreApplication(nullptr), static_cast<HRESULT>(0x80070578));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Error: Unable to initialize with window."));
    EXPECT_EQ(LiveObjects(), 1);
}

TEST_F(StoreInstall, ErrorOfTheOperationComesWithTheOperationsText)
{
    runtime_.update.status = 3;
    runtime_.faults.fails[L"GetResults"] = static_cast<HRESULT>(0x80073CF1);
    runtime_.faults.texts[L"GetResults"] = L"The Store is closed.";
    EXPECT_EQ(InstallStoreApplication(nullptr), static_cast<HRESULT>(0x80073CF1));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Exception [The Store is closed.] when searching for UWP version of VLT"));
}

// Proves: Several installations in one process => the factory is fetched once, the context each time; nothing else is kept
TEST_F(StoreInstall, FactoryIsFetchedOncePerProcessAndTheContextEveryTime)
{
    InstallStoreApplication(nullptr);
    InstallStoreApplication(nullptr);
    EXPECT_THAT(runtime_.Calls(), Contains(L"activate Windows.Services.Store.StoreContext").Times(1));
    EXPECT_THAT(runtime_.Calls(), Contains(L"default").Times(2));
}

// Proves: The thread has no apartment (store installation) => it gets one
TEST_F(StoreInstall, ThreadWithoutAnApartmentIsMadePartOfTheMultithreadedOne)
{
    runtime_.withoutApartment = static_cast<HRESULT>(0x800401F0);
    EXPECT_EQ(InstallStoreApplication(nullptr), 0);
    EXPECT_THAT(runtime_.Calls(), Contains(L"mta").Times(1));
    EXPECT_THAT(runtime_.Calls(), Contains(L"activate Windows.Services.Store.StoreContext").Times(2));
}

TEST_F(StoreInstall, StoreMayReadTheListAfterTheCallHasReturned)
{
    component::IStringIterable* kept = nullptr;
    runtime_.onUpdate = [&kept](component::IStringIterable* ids) { (kept = ids)->AddRef(); };
    InstallStoreApplication(nullptr);
    component::IStringIterator* iterator = nullptr;
    ASSERT_EQ(kept->First(&iterator), S_OK);
    HSTRING id = nullptr;
    EXPECT_EQ(iterator->get_Current(&id), S_OK);
    EXPECT_EQ(TextOf(id), L"9PQ4XK7ZT2MV");
    DeleteString(id);
    EXPECT_EQ(iterator->Release(), 0u);
    EXPECT_EQ(kept->Release(), 0u);
}

TEST_F(StoreInstall, KeepsNothingButTheFactory)
{
    InstallStoreApplication(nullptr);
    runtime_.WaitForThreads();
    EXPECT_EQ(LiveObjects(), 1);
    EXPECT_EQ(LiveStrings(), 0);
    EXPECT_THAT(runtime_.Calls(), Contains(L"handler left with 0"));
}
}  // namespace
}  // namespace repair
