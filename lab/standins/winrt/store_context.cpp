#include <memory>

#include "classes.h"
#include "lab_file.h"
#include "machine.h"
#include "object.h"
#include "operation.h"
#include "strings.h"

namespace lab
{
namespace
{
// Walks the program's list the way the case says and notes every id. The owned strings are given back.
HRESULT ReadIds(abi::IStringIterable* list)
{
    abi::IStringIterator* iterator = nullptr;
    HRESULT result = Record(L"list First", list->First(&iterator));
    if (FAILED(result) || iterator == nullptr)
        return FAILED(result) ? result : E_POINTER;
    const auto note = [](HSTRING id) {
        Record(L"id " + standin::Quoted(TextOf(id)));
        WindowsDeleteString(id);
    };
    if (TheScript().store.walksWithGetMany)
    {
        HSTRING ids[16] = {};
        UINT32 count = 0;
        result = iterator->GetMany(static_cast<UINT32>(std::size(ids)), ids, &count);
        Record(L"list GetMany count=" + std::to_wstring(count), result);
        for (UINT32 i = 0; SUCCEEDED(result) && i < count && i < std::size(ids); ++i)
            note(ids[i]);
        UINT32 more = 1;
        const HRESULT atEnd = iterator->GetMany(1, ids, &more);  // past the end: success, nothing
        Record(L"list GetMany count=" + std::to_wstring(more), atEnd);
    }
    else
    {
        boolean hasCurrent = FALSE;
        result = iterator->get_HasCurrent(&hasCurrent);
        for (int i = 0; SUCCEEDED(result) && hasCurrent && i < 100; ++i)
        {
            HSTRING id = nullptr;
            result = iterator->get_Current(&id);
            if (FAILED(result))
                break;
            note(id);
            result = iterator->MoveNext(&hasCurrent);
        }
        Record(L"list walked", result);
    }
    Record(L"iterator released count=" + std::to_wstring(iterator->Release()));
    return result;
}

class UpdateResult final : public Object<abi::IStorePackageUpdateResult>
{
public:
    UpdateResult() : Object(L"StorePackageUpdateResult") {}

    HRESULT STDMETHODCALLTYPE get_OverallState(INT32* state) override
    {
        const Outcome& outcome = TheScript().store.overall;
        if (FAILED(outcome.result))
            return Record(L"get_OverallState", outcome.Apply());
        *state = TheScript().store.state;
        return Record(L"get_OverallState " + std::to_wstring(*state), S_OK);
    }
};

OperationPlan InstallPlan(std::shared_ptr<abi::IStringIterable> lateList)
{
    const StoreScript& store = TheScript().store;
    OperationPlan plan;
    plan.completion = store.completion;
    plan.ending = store.end;
    plan.finish = [lateList](abi::AsyncStatus status) {
        if (lateList)
            ReadIds(lateList.get());
        const StoreScript& now = TheScript().store;
        if (status == abi::kCompleted && now.state == 3 && !now.installsName.empty())
            AddPackage(now.installsName, now.installsVersion);
    };
    plan.results = [](abi::IInspectable** result) {
        const Outcome& outcome = TheScript().store.results;
        if (FAILED(outcome.result))
            return outcome.Apply();
        *result = outcome.isNull ? nullptr : new UpdateResult;
        return S_OK;
    };
    return plan;
}

class StoreContext final : public Object<abi::IStoreContext, abi::IStoreContext3, abi::IInitializeWithWindow>
{
public:
    StoreContext() : Object(kStoreContextClass) {}

    HRESULT STDMETHODCALLTYPE Initialize(HWND window) override
    {
        wchar_t title[260] = L"";
        InternalGetWindowText(window, title, static_cast<int>(std::size(title)));  // sends nothing: its thread may wait
        return Record(L"Initialize hwnd=" + standin::Hex(reinterpret_cast<ULONG_PTR>(window)) + L"; window=" +
                          (IsWindow(window) ? L"yes" : L"no") + L"; title=" + standin::Quoted(title),
                      TheScript().store.window.Apply());
    }

    HRESULT STDMETHODCALLTYPE DownloadAndInstallStorePackagesAsync(abi::IStringIterable* storeIds,
                                                                   abi::IStoreOperation** operation) override
    {
        if (storeIds == nullptr)
            return Record(L"DownloadAndInstallStorePackagesAsync", E_POINTER);
        const StoreScript& store = TheScript().store;
        IsAgile(L"list", storeIds);
        KeepUntilTheEnd(L"list", storeIds);
        if (!store.readsLate)
            ReadIds(storeIds);
        if (FAILED(store.request.result))
            return Record(L"DownloadAndInstallStorePackagesAsync", store.request.Apply());
        Record(L"DownloadAndInstallStorePackagesAsync", S_OK);
        *operation = store.request.isNull
                         ? nullptr
                         : Operation<abi::IStoreOperation>::Start(
                               L"StoreOperation", InstallPlan(store.readsLate ? Hold(storeIds) : nullptr));
        return S_OK;
    }

protected:
    HRESULT Refuse(const GUID& iid) override
    {
        const StoreScript& store = TheScript().store;
        const bool isRefused = (!store.hasContext3 && IsEqualGUID(iid, abi::IStoreContext3::kIid)) ||
                               (!store.hasWindow && IsEqualGUID(iid, abi::IInitializeWithWindow::kIid));
        return isRefused ? E_NOINTERFACE : S_OK;
    }

private:
    static std::shared_ptr<abi::IStringIterable> Hold(abi::IStringIterable* list)
    {
        list->AddRef();
        return {list, [](abi::IStringIterable* held) { held->Release(); }};
    }
};

class StoreContextFactory final : public Object<abi::IActivationFactory, abi::IStoreContextStatics, abi::IAgileObject>
{
public:
    StoreContextFactory() : Object(L"StoreContextFactory") {}

    HRESULT STDMETHODCALLTYPE ActivateInstance(abi::IInspectable**) override
    {
        return Record(L"ActivateInstance StoreContext", E_NOTIMPL);  // reached through GetDefault only
    }

    HRESULT STDMETHODCALLTYPE GetDefault(abi::IStoreContext** context) override
    {
        const Outcome& outcome = TheScript().store.context;
        if (FAILED(outcome.result))
            return Record(L"GetDefault", outcome.Apply());
        *context = outcome.isNull ? nullptr : new StoreContext;
        return Record(L"GetDefault", S_OK);
    }
};
}  // namespace

abi::IActivationFactory* NewStoreContextFactory()
{
    return new StoreContextFactory;
}
}  // namespace lab
