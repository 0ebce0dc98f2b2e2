// Drives the Windows Runtime component of the lab as any caller does, without the product.
//
// usage: winrt_probe query | remove | install [mta]        "mta": the process gets an implicit apartment first
// Prints what came back, one fact a line.
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <roapi.h>
#include <winstring.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "winrt/com_object.h"

namespace abi = winrt_abi;

HRESULT winrt_abi::UnusedSlot(const wchar_t*, const wchar_t*)
{
    return E_NOTIMPL;
}

namespace
{
// One reference; its address is where a call puts an object.
template <class Interface>
class Held
{
public:
    Held() = default;
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held()
    {
        if (object_ != nullptr)
        {
            object_->Release();
        }
    }

    Interface** operator&() { return &object_; }
    Interface* operator->() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }
    Interface* Get() const { return object_; }

private:
    Interface* object_ = nullptr;
};

void ShowErrorObject()
{
    ::IErrorInfo* error = nullptr;
    if (GetErrorInfo(0, &error) != S_OK)
    {
        return;
    }
    BSTR description = nullptr;
    error->GetDescription(&description);
    std::printf(" description [%ls]", description);
    SysFreeString(description);
    void* found = nullptr;
    if (SUCCEEDED(error->QueryInterface(abi::IRestrictedErrorInfo::kIid, &found)))
    {
        BSTR texts[3] = {};
        HRESULT code = S_OK;
        auto* const restricted = static_cast<abi::IRestrictedErrorInfo*>(found);
        restricted->GetErrorDetails(&texts[0], &code, &texts[1], &texts[2]);
        std::printf(" restricted 0x%08lX [%ls] [%ls]", static_cast<ULONG>(code), texts[0],
                    texts[1] == nullptr ? L"(null)" : texts[1]);
        for (BSTR text : texts)
        {
            SysFreeString(text);
        }
        restricted->Release();
    }
    error->Release();
}

// Prints the result, and the error object that came with a failure. Returns whether the call succeeded.
bool Show(const char* what, HRESULT result)
{
    std::printf("%s: 0x%08lX", what, static_cast<ULONG>(result));
    if (FAILED(result))
    {
        ShowErrorObject();
    }
    std::printf("\n");
    return SUCCEEDED(result);
}

template <class Interface>
bool Query(const char* what, IUnknown* object, Held<Interface>& found)
{
    return Show(what, object->QueryInterface(Interface::kIid, reinterpret_cast<void**>(&found)));
}

std::wstring Take(HSTRING string)
{
    const std::wstring text = string == nullptr ? L"(null)" : WindowsGetStringRawBuffer(string, nullptr);
    WindowsDeleteString(string);
    return text;
}

template <class Interface>
void Activate(const wchar_t* className, Held<Interface>& factory)
{
    HSTRING name = nullptr;
    WindowsCreateString(className, static_cast<UINT32>(std::wcslen(className)), &name);
    Show("activation", RoGetActivationFactory(name, Interface::kIid, reinterpret_cast<void**>(&factory)));
    WindowsDeleteString(name);
}

template <class Operation>
struct IHandler : abi::ICompletedHandler
{
    static constexpr GUID kIid = Operation::kHandlerIid;

protected:
    ~IHandler() = default;
};

// The handler of a finished operation; it does not have to be agile.
template <class Operation>
class Handler final : public abi::ComObject<IHandler<Operation>, abi::IAgileObject>
{
public:
    explicit Handler(bool isAgile) : isAgile_(isAgile) {}
    ~Handler() override { CloseHandle(done); }

    HRESULT STDMETHODCALLTYPE Invoke(abi::IInspectable*, INT32 ended) override
    {
        status = ended;
        thread = GetCurrentThreadId();
        SetEvent(done);
        return S_OK;
    }

    HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    INT32 status = -1;
    DWORD thread = 0;

protected:
    HRESULT Refuse(const GUID& iid) override
    {
        return !isAgile_ && IsEqualGUID(iid, abi::IAgileObject::kIid) ? E_NOINTERFACE : S_OK;
    }

private:
    bool isAgile_;
};

template <class Operation>
void AwaitRunning(Operation* operation)
{
    Held<abi::IInspectable> early;
    Show("early results", operation->GetResults(&early));
    auto* const unwilling = new Handler<Operation>(false);
    Show("handler that is not agile", operation->put_Completed(unwilling));
    unwilling->Release();
    auto* const handler = new Handler<Operation>(true);
    if (Show("put_Completed", operation->put_Completed(handler)))
    {
        std::printf("called inside: %s\n", WaitForSingleObject(handler->done, 0) == WAIT_OBJECT_0 ? "yes" : "no");
        Show("second put_Completed", operation->put_Completed(handler));
        std::printf("wait: %lu\n", WaitForSingleObject(handler->done, 1000));
        std::printf("status: %d, own thread: %s\n", handler->status,
                    handler->thread == GetCurrentThreadId() ? "yes" : "no");
    }
    handler->Release();
}

// Waits for the operation and gets its result, if there is one.
template <class Operation>
void Await(Operation* operation, Held<abi::IInspectable>& result)
{
    Held<abi::IAsyncInfo> info;
    INT32 status = -1;
    Query("async info", operation, info);
    info->get_Status(&status);
    std::printf("status: %d\n", status);
    if (status == abi::kStarted)
    {
        AwaitRunning(operation);
    }
    HRESULT error = S_OK;
    info->get_ErrorCode(&error);
    std::printf("error code: 0x%08lX\n", static_cast<ULONG>(error));
    Show("GetResults", operation->GetResults(&result));
}

// Prints a package and returns its full name for the removal.
std::wstring ShowPackage(abi::IPackage* package)
{
    Held<abi::IPackageId> id;
    HSTRING name = nullptr;
    abi::PackageVersion version = {};
    if (!Show("get_Id", package->get_Id(&id)) || !id)
    {
        return {};
    }
    const bool isNamed = Show("get_FullName", id->get_FullName(&name));
    const std::wstring text = Take(name);
    Show("get_Version", id->get_Version(&version));
    std::printf("package: %ls %u.%u.%u.%u\n", text.c_str(), version.major, version.minor, version.build,
                version.revision);
    Held<abi::IPackage3> package3;
    Held<abi::IPackageStatus> status;
    if (!Query("IPackage3", package, package3))
    {
        return text;
    }
    if (Show("get_Status", package3->get_Status(&status)) && status)
    {
        boolean isOk = 2;
        Show("VerifyIsOK", status->VerifyIsOK(&isOk));
        std::printf("ok: %d\n", isOk);
    }
    return isNamed ? text : std::wstring();
}

void Remove(abi::IPackageManager* manager, const std::wstring& name)
{
    Held<abi::IPackageManager2> manager2;
    Query("IPackageManager2", manager, manager2);
    HSTRING string = nullptr;
    WindowsCreateString(name.c_str(), static_cast<UINT32>(name.size()), &string);
    Held<abi::IDeploymentOperation> operation;
    Show("remove", manager2->RemovePackageWithOptionsAsync(string, 0x80000, &operation));
    WindowsDeleteString(string);
    Held<abi::IInspectable> found;
    if (operation)
    {
        Await(operation.Get(), found);
    }
    if (found)
    {
        auto* const result = static_cast<abi::IDeploymentResult*>(found.Get());
        HRESULT code = S_OK;
        HSTRING text = nullptr;
        Show("get_ExtendedErrorCode", result->get_ExtendedErrorCode(&code));
        Show("get_ErrorText", result->get_ErrorText(&text));
        std::printf("result: 0x%08lX [%ls]\n", static_cast<ULONG>(code), Take(text).c_str());
    }
}

void ShowPackages(abi::IPackageManager* manager, abi::IPackageIterator* iterator, bool doRemove)
{
    boolean hasCurrent = 2;
    bool goesOn = SUCCEEDED(iterator->get_HasCurrent(&hasCurrent));
    while (goesOn && hasCurrent == 1)
    {
        Held<abi::IPackage> package;
        goesOn = Show("get_Current", iterator->get_Current(&package));
        if (package)
        {
            const std::wstring name = ShowPackage(package.Get());
            if (doRemove && !name.empty())
            {
                Remove(manager, name);
            }
        }
        goesOn = goesOn && Show("MoveNext", iterator->MoveNext(&hasCurrent));
    }
}

int Packages(bool doRemove)
{
    Held<abi::IActivationFactory> factory;
    Held<abi::IInspectable> instance;
    Activate(abi::kPackageManagerClass, factory);
    if (!factory || !Show("ActivateInstance", factory->ActivateInstance(&instance)) || !instance)
    {
        return 1;
    }
    Held<abi::IPackageManager> manager;
    Query("IPackageManager", instance.Get(), manager);
    Held<abi::IPackageIterable> list;
    Held<abi::IPackageIterator> iterator;
    if (Show("FindPackages", manager->FindPackages(&list)) && list && Show("First", list->First(&iterator)) && iterator)
    {
        ShowPackages(manager.Get(), iterator.Get(), doRemove);
    }
    Held<abi::IPackageIterable> none;
    Show("wrong slot", manager->FindPackagesByUserSecurityId(nullptr, &none));
    return 0;
}

class IdIterator final : public abi::ComObject<abi::IStringIterator>
{
public:
    HRESULT STDMETHODCALLTYPE get_Current(HSTRING* id) override { return WindowsCreateString(L"ID000000000A", 12, id); }
    HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* has) override
    {
        *has = isAtEnd_ ? FALSE : TRUE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE MoveNext(boolean* has) override
    {
        isAtEnd_ = true;
        *has = FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetMany(UINT32, HSTRING* ids, UINT32* count) override
    {
        *count = isAtEnd_ ? 0 : 1;
        return std::exchange(isAtEnd_, true) ? S_OK : get_Current(ids);
    }

private:
    bool isAtEnd_ = false;
};

// A list of one Store id.
class IdList final : public abi::ComObject<abi::IStringIterable, abi::IAgileObject>
{
public:
    HRESULT STDMETHODCALLTYPE First(abi::IStringIterator** first) override
    {
        *first = new IdIterator;
        return S_OK;
    }
};

int Install()
{
    Held<abi::IStoreContextStatics> factory;
    Held<abi::IStoreContext> context;
    Activate(abi::kStoreContextClass, factory);
    if (!factory || !Show("GetDefault", factory->GetDefault(&context)) || !context)
    {
        return 1;
    }
    Held<abi::IInitializeWithWindow> window;
    if (Query("IInitializeWithWindow", context.Get(), window))
    {
        Show("Initialize", window->Initialize(GetDesktopWindow()));
    }
    Held<abi::IStoreContext3> context3;
    if (!Query("IStoreContext3", context.Get(), context3))
    {
        return 0;
    }
    static IdList ids;  // not released: the component asks for its count when the process ends
    Held<abi::IStoreOperation> operation;
    Show("request", context3->DownloadAndInstallStorePackagesAsync(&ids, &operation));
    if (operation)
    {
        Held<abi::IInspectable> result;
        Await(operation.Get(), result);
        INT32 state = -1;
        if (result)
        {
            Show("get_OverallState",
                 static_cast<abi::IStorePackageUpdateResult*>(result.Get())->get_OverallState(&state));
        }
        std::printf("state: %d\n", state);
    }
    return 0;
}
}  // namespace

int main(int count, char** arguments)
{
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    const std::string_view what = count > 1 ? arguments[1] : "";
    CO_MTA_USAGE_COOKIE cookie{};
    if (count > 2)
    {
        CoIncrementMTAUsage(&cookie);
    }
    if (what == "install")
    {
        return Install();
    }
    if (what == "query" || what == "remove")
    {
        return Packages(what == "remove");
    }
    std::fputs("usage: winrt_probe query | remove | install [mta]\n", stderr);
    return 2;
}
