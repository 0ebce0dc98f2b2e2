#include <memory>

#include "classes.h"
#include "lab_file.h"
#include "operation.h"

namespace lab
{
namespace
{
void RecordId(HSTRING id)
{
    Record(L"id " + standin::Quoted(TextOf(id)));
    WindowsDeleteString(id);
}

HRESULT ReadIdsAtOnce(abi::IStringIterator* iterator)
{
    HSTRING ids[16] = {};
    UINT32 count = 0;
    const HRESULT result = iterator->GetMany(static_cast<UINT32>(std::size(ids)), ids, &count);
    Record(L"list GetMany count=" + std::to_wstring(count), result);
    for (UINT32 i = 0; SUCCEEDED(result) && i < count && i < std::size(ids); ++i)
    {
        RecordId(ids[i]);
    }
    UINT32 more = 1;
    const HRESULT atEnd = iterator->GetMany(1, ids, &more);  // past the end: success, nothing
    Record(L"list GetMany count=" + std::to_wstring(more), atEnd);
    return result;
}

HRESULT ReadIdsOneByOne(abi::IStringIterator* iterator)
{
    boolean hasCurrent = FALSE;
    HRESULT result = iterator->get_HasCurrent(&hasCurrent);
    for (int i = 0; SUCCEEDED(result) && hasCurrent && i < 100; ++i)
    {
        HSTRING id = nullptr;
        result = iterator->get_Current(&id);
        if (FAILED(result))
        {
            break;
        }
        RecordId(id);
        result = iterator->MoveNext(&hasCurrent);
    }
    return Record(L"list walked", result);
}

// Reads the program's list as the script says and records every id.
void ReadIds(abi::IStringIterable* list)
{
    abi::IStringIterator* iterator = nullptr;
    if (FAILED(Record(L"list First", list->First(&iterator))) || iterator == nullptr)
    {
        return;
    }
    TheScript().store.walksWithGetMany ? ReadIdsAtOnce(iterator) : ReadIdsOneByOne(iterator);
    Record(L"iterator released count=" + std::to_wstring(iterator->Release()));
}

class UpdateResult final : public Object<abi::IStorePackageUpdateResult>
{
public:
    UpdateResult() : Object(L"StorePackageUpdateResult", TheScript().store.answers) {}

    HRESULT STDMETHODCALLTYPE get_OverallState(INT32* state) override
    {
        const INT32 given = TheScript().store.state;
        return Give(L"get_OverallState", L"get_OverallState " + std::to_wstring(given), state, [&] { return given; });
    }
};

OperationPlan InstallPlan(std::shared_ptr<abi::IStringIterable> lateList)
{
    const StoreScript& store = TheScript().store;
    OperationPlan plan{store.answers, store.completion, store.end, {}, {}};
    plan.finish = [lateList, &store](abi::AsyncStatus status) {
        if (lateList)
        {
            ReadIds(lateList.get());
        }
        if (status == abi::kCompleted && store.state == 3 && !store.installsName.empty())
        {
            AddPackage(store.installsName, store.installsVersion);
        }
    };
    plan.newResult = [] { return new UpdateResult; };
    return plan;
}

std::shared_ptr<abi::IStringIterable> Hold(abi::IStringIterable* list)
{
    list->AddRef();
    return {list, [](abi::IStringIterable* held) { held->Release(); }};
}

class StoreContext final : public Object<abi::IStoreContext, abi::IStoreContext3, abi::IInitializeWithWindow>
{
public:
    StoreContext() : Object(abi::kStoreContextClass, TheScript().store.answers) {}

    HRESULT STDMETHODCALLTYPE Initialize(HWND window) override
    {
        wchar_t title[260] = L"";
        InternalGetWindowText(window, title, static_cast<int>(std::size(title)));  // no message: its thread may be busy
        const Answer* const failure = AnswerOf(L"Initialize");
        return Record(L"Initialize hwnd=" + standin::Hex(reinterpret_cast<ULONG_PTR>(window)) + L"; window=" +
                          (IsWindow(window) ? L"yes" : L"no") + L"; title=" + standin::Quoted(title),
                      failure == nullptr ? S_OK : failure->Give());
    }

    HRESULT STDMETHODCALLTYPE DownloadAndInstallStorePackagesAsync(abi::IStringIterable* storeIds,
                                                                   abi::IStoreOperation** operation) override
    {
        constexpr const wchar_t* kWhat = L"DownloadAndInstallStorePackagesAsync";
        *operation = nullptr;
        if (storeIds == nullptr)
        {
            return Record(kWhat, E_POINTER);
        }
        const bool readsLate = TheScript().store.readsLate;
        IsAgile(L"list", storeIds);
        KeepUntilTheEnd(L"list", storeIds);
        if (!readsLate)
        {
            ReadIds(storeIds);
        }
        if (const Answer* const answer = AnswerOf(kWhat))
        {
            return Record(kWhat, answer->Give());
        }
        Record(kWhat, S_OK);  // before the operation records its own lines
        *operation = Operation<abi::IStoreOperation>::Start(L"StoreOperation",
                                                            InstallPlan(readsLate ? Hold(storeIds) : nullptr));
        return S_OK;
    }
};

class StoreContextFactory final : public Object<abi::IActivationFactory, abi::IStoreContextStatics, abi::IAgileObject>
{
public:
    StoreContextFactory() : Object(L"StoreContextFactory", TheScript().store.answers) {}

    HRESULT STDMETHODCALLTYPE ActivateInstance(abi::IInspectable**) override
    {
        return Record(L"ActivateInstance StoreContext", E_NOTIMPL);  // reached through GetDefault only
    }

    HRESULT STDMETHODCALLTYPE GetDefault(abi::IStoreContext** context) override
    {
        return Give(L"GetDefault", L"GetDefault", context, [] { return new StoreContext; });
    }
};
}  // namespace

abi::IActivationFactory* NewStoreContextFactory()
{
    return new StoreContextFactory;
}
}  // namespace lab
