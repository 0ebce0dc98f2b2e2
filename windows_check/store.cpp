// The Store's context. Nothing is downloaded or installed.
#include <windows.h>

#include "store/string_list.h"
#include "windows_check/check.h"
#include "windows_check/runtime_objects.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
Reference<winrt_abi::IStoreContextStatics> Factory()
{
    return Activated<winrt_abi::IStoreContextStatics>(winrt_abi::kStoreContextClass);
}

Reference<winrt_abi::IStoreContext> Context()
{
    return Get(Factory().Get(), &winrt_abi::IStoreContextStatics::GetDefault);
}

FACT(store, factory)
{
    Factory();
    return Saw(L"yes");
}

SHORT_FACT(store, default_context, Saw(ClassOf(Context().Get())))

FACT(store, context_interfaces)
{
    const Reference<winrt_abi::IStoreContext> context = Context();
    return Saw(
        Joined({Answers<winrt_abi::IStoreContext>(context.Get()), Answers<winrt_abi::IStoreContext3>(context.Get()),
                Answers<winrt_abi::IInitializeWithWindow>(context.Get())}));
}

// The first method of the interface, a question without any effect: may packages be downloaded silently?
FACT(store, context3_slots)
{
    const auto context3 = repair::QueryFor<winrt_abi::IStoreContext3>(Context().Get());
    boolean can = 0x55;
    repair::CheckResult(context3.Get()->get_CanSilentlyDownloadStorePackageUpdates(&can));
    return Saw(can <= 1 ? L"0 or 1" : Number(can));
}

FACT(store, with_window)
{
    const auto withWindow = repair::QueryFor<winrt_abi::IInitializeWithWindow>(Context().Get());
    // A hidden window.
    const HWND window = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    const HRESULT code = withWindow.Get()->Initialize(window);
    DestroyWindow(window);
    return Saw(ResultOf(code));
}

FACT(store, without_window)
{
    const auto withWindow = repair::QueryFor<winrt_abi::IInitializeWithWindow>(Context().Get());
    return Saw(SUCCEEDED(withWindow.Get()->Initialize(nullptr)) ? L"accepted" : L"refused");
}

// The tool's own list of product ids, read as the Store may read it.
FACT(store, own_list)
{
    const auto list = repair::MakeStringList({L"9PQ4XK7ZT2MV"});
    const auto iterable = repair::QueryFor<winrt_abi::IStringIterable>(list.Get());
    const auto iterator = Get(iterable.Get(), &winrt_abi::IStringIterable::First);
    HSTRING items[2] = {};
    UINT32 count = 0;
    repair::CheckResult(iterator.Get()->GetMany(2, items, &count));
    return Saw(Number(count) + L" " + Taken(S_OK, items[0]));
}
}  // namespace
}  // namespace windows_check
