// What an installation tells the Store. The cases show the whole of it, and what the Store may answer.
#include "store/store_install.h"
#include "support/store_test.h"
#include "support/test.h"

namespace repair
{
namespace
{
using StoreInstall = StoreTest;

std::wstring Initialized(const wchar_t* window)
{
    return std::wstring(L"Initialize hwnd=") + window + L"; window=no; title=\"\"";
}

// Proves: The Store is asked => once, for the one product, tied to the given window; nothing is logged
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_F(StoreInstall, AsksTheStoreOnceForTheOneProductTiedToTheWindow)
{
    EXPECT_EQ(InstallStoreApplication(reinterpret_cast<HWND>(UINT_PTR{0xFFFFFFF0})), 0);
    EXPECT_THAT(runtime_.Calls(), Contains(Initialized(L"0xFFFFFFF0")).Times(1));
    EXPECT_THAT(runtime_.Calls(), Contains(L"id \"9PQ4XK7ZT2MV\"").Times(1));
    EXPECT_THAT(runtime_.Calls(), Contains(L"DownloadAndInstallStorePackagesAsync").Times(1));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

// Proves: A null window => is handed on, the Store decides
TEST_F(StoreInstall, NullWindowIsHandedOnAsItIs)
{
    EXPECT_EQ(InstallStoreApplication(nullptr), 0);
    EXPECT_THAT(runtime_.Calls(), Contains(Initialized(L"0x0")));
}

// Proves: Several installations in one process => the factory is fetched once, the context each time; nothing else is kept
TEST_F(StoreInstall, FactoryIsFetchedOncePerProcessAndTheContextEveryTime)
{
    InstallStoreApplication(nullptr);
    InstallStoreApplication(nullptr);
    EXPECT_THAT(runtime_.Calls(), Contains(L"DllGetActivationFactory Windows.Services.Store.StoreContext").Times(1));
    EXPECT_THAT(runtime_.Calls(), Contains(L"GetDefault").Times(2));
}

TEST_F(StoreInstall, AMissingFunctionOfTheRuntimeIsTheResult)
{
    runtime_.missingFunctions = {"RoGetActivationFactory"};
    EXPECT_EQ(InstallStoreApplication(nullptr), HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND));
}
}  // namespace
}  // namespace repair
