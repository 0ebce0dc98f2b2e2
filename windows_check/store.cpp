// The Store's context through the interfaces that the tool declares. Nothing is downloaded or installed.
#include <windows.h>

#include "store/store_packages.h"
#include "store/string_list.h"
#include "windows_check/check.h"
#include "windows_check/runtime_objects.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
using repair::Reference;

Reference<abi::IStoreContextStatics> Factory()
{
    return Reference<abi::IStoreContextStatics>(static_cast<abi::IStoreContextStatics*>(
        repair::ActivateFactory(abi::kStoreContextClass, abi::IStoreContextStatics::kIid)));
}

Reference<abi::IStoreContext> Context()
{
    abi::IStoreContext* context = nullptr;
    const HRESULT code = Factory().Get()->GetDefault(&context);
    return repair::TakeObject(code, context);
}

template <typename Look>
Seen Guarded(Look look)
{
    try
    {
        return look();
    }
    catch (const repair::WinrtError& error)
    {
        if (error.code == REGDB_E_CLASSNOTREG)
        {
            return DoesNotApply(L"this system does not have the class");
        }
        return Saw(ResultOf(error.code), error.message);
    }
}

Seen FactoryIsThere()
{
    return Guarded([] { return Saw(Factory() ? L"yes" : L"no"); });
}

Seen DefaultContext()
{
    return Guarded([] { return Saw(ClassOf(Context().Get())); });
}

Seen ContextInterfaces()
{
    return Guarded([] {
        const Reference<abi::IStoreContext> context = Context();
        return Saw(Answers<abi::IStoreContext>(context.Get()) + L" " + Answers<abi::IStoreContext3>(context.Get()) +
                   L" " + Answers<abi::IInitializeWithWindow>(context.Get()));
    });
}

Seen Context3Slots()
{
    return Guarded([] {
        const Reference<abi::IStoreContext> context = Context();
        const auto context3 = repair::QueryFor<StoreContext3First>(context.Get());
        abi::Boolean can = 0x55;
        repair::CheckResult(context3.Get()->get_CanSilentlyDownloadStorePackageUpdates(&can));
        return Saw(can <= 1 ? L"0 or 1" : Number(can));
    });
}

Seen InitializeWithWindow()
{
    return Guarded([] {
        const Reference<abi::IStoreContext> context = Context();
        const auto withWindow = repair::QueryFor<abi::IInitializeWithWindow>(context.Get());
        // A window that nobody sees.
        const HWND window =
            CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
        const HRESULT code = withWindow.Get()->Initialize(window);
        DestroyWindow(window);
        return Saw(ResultOf(code));
    });
}

Seen InitializeWithoutWindow()
{
    return Guarded([] {
        const Reference<abi::IStoreContext> context = Context();
        const auto withWindow = repair::QueryFor<abi::IInitializeWithWindow>(context.Get());
        return Saw(SUCCEEDED(withWindow.Get()->Initialize(nullptr)) ? L"accepted" : L"refused");
    });
}

// The list of product ids that the Store would be given, asked as the Store may ask it.
Seen OwnList()
{
    return Guarded([] {
        const Reference<abi::IStringIterable> list = repair::MakeStringList({L"9PQ4XK7ZT2MV"});
        abi::IStringIterator* first = nullptr;
        const HRESULT code = list.Get()->First(&first);
        const Reference<abi::IStringIterator> iterator = repair::TakeObject(code, first);
        abi::HString items[2] = {};
        UINT32 count = 0;
        repair::CheckResult(iterator.Get()->GetMany(2, items, &count));
        const repair::HStringOwner owner(items[0]);
        return Saw(Number(count) + L" " + repair::ToWide(items[0]));
    });
}
}  // namespace

std::vector<Check> StoreChecks()
{
    return {
        {"store.factory", FactoryIsThere, 30'000},
        {"store.default_context", DefaultContext, 30'000},
        {"store.context_interfaces", ContextInterfaces, 30'000},
        {"store.context3_slots", Context3Slots, 30'000},
        {"store.with_window", InitializeWithWindow, 30'000},
        {"store.without_window", InitializeWithoutWindow, 30'000},
        {"store.own_list", OwnList},
    };
}
}  // namespace windows_check
