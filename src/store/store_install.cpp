#include "store/store_install.h"

#include <atomic>

#include <windows.h>

#include "base/log.h"
#include "store/constants.h"
#include "store/string_list.h"
#include "store/wait_for_async.h"
#include "store/winrt_runtime.h"

namespace repair
{
namespace
{
std::atomic<abi::IStoreContextStatics*> storeContextFactory = nullptr;

// The context of the current user; null if the Store has none.
Reference<abi::IStoreContext> GetDefaultContext()
{
    abi::IStoreContext* context = nullptr;
    const HRESULT code = CachedFactory(storeContextFactory, abi::kStoreContextClass)->GetDefault(&context);
    Reference<abi::IStoreContext> owner(context);
    CheckResult(code);
    return owner;
}

Reference<abi::IInitializeWithWindow> AskForWindowInterface(abi::IStoreContext* context)
{
    void* found = nullptr;
    if (context == nullptr || FAILED(context->QueryInterface(abi::IInitializeWithWindow::kIid, &found)))
    {
        return {};
    }
    return Reference<abi::IInitializeWithWindow>(static_cast<abi::IInitializeWithWindow*>(found));
}
}  // namespace

std::int32_t RequestStoreInstall(HWND owner)
{
    DropErrorObject();  // of whatever the thread has done before
    const Reference<abi::IStoreContext> context = GetDefaultContext();
    const Reference<abi::IInitializeWithWindow> withWindow = AskForWindowInterface(context.Get());
    if (!withWindow)
    {
        LogLine(L"Error: Store context does not implement IInitializeWithWindow.");
        return -1;
    }
    const HRESULT initialized = withWindow.Get()->Initialize(owner);
    if (FAILED(initialized))
    {
        LogLine(L"Error: Unable to initialize with window.");
        return initialized;
    }

    const Reference<abi::IStringIterable> storeIds = MakeStringList({kStoreProductId});
    const Reference<abi::IStoreContext3> context3 = QueryFor<abi::IStoreContext3>(context.Get());
    const auto operation = Receive<abi::IAsyncOperation<abi::StoreUpdate>>(
        [&](auto** started) { return context3.Get()->DownloadAndInstallStorePackagesAsync(storeIds.Get(), started); });
    const Reference<abi::IStorePackageUpdateResult> result = WaitForAsync(operation.Get());
    abi::StorePackageUpdateState state = abi::StorePackageUpdateState::kPending;
    CheckResult(result.Get()->get_OverallState(&state));
    return state == abi::StorePackageUpdateState::kCompleted ? 0 : -1;
}

std::int32_t InstallStoreApplication(HWND owner) noexcept
{
    try
    {
        return RequestStoreInstall(owner);
    }
    catch (const WinrtError& error)
    {
        // By design the same text as for the package search.
        LogLine(L"Exception [%s] when searching for UWP version of VLT", error.message.c_str());
        return error.code;
    }
    catch (...)
    {
        LogLine(L"Unknown expection occured when searching for UWP version of VLT");
        return -1;
    }
}
}  // namespace repair
