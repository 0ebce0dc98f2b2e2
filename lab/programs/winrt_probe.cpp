// Drives the Windows Runtime component of the lab the way any caller does: by class name, interface identifier and slot
// number. It shares no declaration with the component, so that a method in a wrong slot cannot agree with itself.
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

namespace
{
using Address = void*;

// The method in this slot of an object's table, called with the object as first argument.
template <class... Arguments>
HRESULT Call(Address object, std::size_t slot, Arguments... arguments)
{
    using Method = HRESULT(STDMETHODCALLTYPE*)(Address, Arguments...);
    Address const* const table = *static_cast<Address* const*>(object);
    return reinterpret_cast<Method>(table[slot])(object, arguments...);
}

void Release(Address object)
{
    if (object != nullptr)
        static_cast<IUnknown*>(object)->Release();
}

// Also tells which error object came with a failure.
HRESULT Show(const char* what, HRESULT result)
{
    std::printf("%s: 0x%08lX", what, static_cast<ULONG>(result));
    IErrorInfo* error = nullptr;
    if (FAILED(result) && GetErrorInfo(0, &error) == S_OK)
    {
        BSTR description = nullptr;
        error->GetDescription(&description);
        std::printf(" description [%ls]", description);
        SysFreeString(description);
        const GUID restrictedId = {0x82BA7092, 0x4C88, 0x427D, {0xA7, 0xBC, 0x16, 0xDD, 0x93, 0xFE, 0xB6, 0x7E}};
        Address restricted = nullptr;
        if (SUCCEEDED(error->QueryInterface(restrictedId, &restricted)))
        {
            BSTR general = nullptr;
            BSTR text = nullptr;
            BSTR capability = nullptr;
            HRESULT code = S_OK;
            Call(restricted, 3, &general, &code, &text, &capability);
            std::printf(" restricted 0x%08lX [%ls] [%ls]", static_cast<ULONG>(code), general,
                        text == nullptr ? L"(null)" : text);
            SysFreeString(general);
            SysFreeString(text);
            SysFreeString(capability);
            Release(restricted);
        }
        error->Release();
    }
    std::printf("\n");
    return result;
}

std::wstring Take(HSTRING string)
{
    const std::wstring text = string == nullptr ? L"(null)" : WindowsGetStringRawBuffer(string, nullptr);
    WindowsDeleteString(string);
    return text;
}

Address Activate(const wchar_t* className, const GUID& iid)
{
    HSTRING name = nullptr;
    WindowsCreateString(className, static_cast<UINT32>(std::wcslen(className)), &name);
    Address factory = nullptr;
    Show("activation", RoGetActivationFactory(name, iid, &factory));
    WindowsDeleteString(name);
    return factory;
}

// The handler of a finished operation; agile unless told otherwise.
struct Handler : IUnknown
{
    explicit Handler(const GUID& own) : iid(own), done(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID asked, void** object) override
    {
        const GUID agile = {0x94EA2B94, 0xE9CC, 0x49E0, {0xC0, 0xFF, 0xEE, 0x64, 0xCA, 0x8F, 0x5B, 0x90}};
        const bool isKnown =
            IsEqualGUID(asked, IID_IUnknown) || IsEqualGUID(asked, iid) || (isAgile && IsEqualGUID(asked, agile));
        *object = isKnown ? this : nullptr;
        if (isKnown)
            AddRef();
        return isKnown ? S_OK : E_NOINTERFACE;
    }

    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&references)); }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG left = InterlockedDecrement(&references);
        if (left == 0)
            delete this;
        return static_cast<ULONG>(left);
    }

    virtual HRESULT STDMETHODCALLTYPE Invoke(Address, INT32 ended)
    {
        status = ended;
        thread = GetCurrentThreadId();
        SetEvent(done);
        return S_OK;
    }

    GUID iid;
    HANDLE done;
    bool isAgile = true;
    INT32 status = -1;
    DWORD thread = 0;
    LONG references = 1;

protected:
    virtual ~Handler() { CloseHandle(done); }
};

// Waits for the operation and gives its result; null when there is none.
Address Await(Address operation, const GUID& handlerIid)
{
    const GUID asyncInfoId = {0x00000036, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    Address info = nullptr;
    INT32 status = -1;
    Show("async info", static_cast<IUnknown*>(operation)->QueryInterface(asyncInfoId, &info));
    Call(info, 7, &status);
    std::printf("status: %d\n", status);
    Address result = nullptr;
    if (status == 0)
    {
        Show("early results", Call(operation, 10, &result));
        auto* const unwilling = new Handler(handlerIid);
        unwilling->isAgile = false;
        Show("handler that is not agile", Call(operation, 8, unwilling));
        unwilling->Release();
        auto* const handler = new Handler(handlerIid);
        if (SUCCEEDED(Show("put_Completed", Call(operation, 8, handler))))
        {
            std::printf("called inside: %s\n", WaitForSingleObject(handler->done, 0) == WAIT_OBJECT_0 ? "yes" : "no");
            Show("second put_Completed", Call(operation, 8, handler));
            std::printf("wait: %lu\n", WaitForSingleObject(handler->done, 1000));
            std::printf("status: %d, own thread: %s\n", handler->status,
                        handler->thread == GetCurrentThreadId() ? "yes" : "no");
        }
        handler->Release();
    }
    HRESULT error = S_OK;
    Call(info, 8, &error);
    std::printf("error code: 0x%08lX\n", static_cast<ULONG>(error));
    Show("GetResults", Call(operation, 10, &result));
    Release(info);
    return result;
}

// Prints a package; its full name comes back for the removal.
std::wstring ShowPackage(Address package)
{
    Address id = nullptr;
    HSTRING name = nullptr;
    UINT16 version[4] = {};
    if (FAILED(Show("get_Id", Call(package, 6, &id))) || id == nullptr)
        return {};
    const HRESULT named = Show("get_FullName", Call(id, 12, &name));
    const std::wstring text = Take(name);
    Show("get_Version", Call(id, 7, &version));
    std::printf("package: %ls %u.%u.%u.%u\n", text.c_str(), version[0], version[1], version[2], version[3]);
    Release(id);

    const GUID package3Id = {0x5F738B61, 0xF86A, 0x4917, {0x93, 0xD1, 0xF1, 0xEE, 0x9D, 0x3B, 0x35, 0xD9}};
    Address package3 = nullptr;
    Address status = nullptr;
    if (FAILED(Show("IPackage3", static_cast<IUnknown*>(package)->QueryInterface(package3Id, &package3))))
        return text;
    if (SUCCEEDED(Show("get_Status", Call(package3, 6, &status))) && status != nullptr)
    {
        boolean isOk = 2;
        Show("VerifyIsOK", Call(status, 6, &isOk));
        std::printf("ok: %d\n", isOk);
    }
    Release(status);
    Release(package3);
    return SUCCEEDED(named) ? text : std::wstring();
}

void Remove(Address manager, const std::wstring& name)
{
    const GUID manager2Id = {0xF7AAD08D, 0x0840, 0x46F2, {0xB5, 0xD8, 0xCA, 0xD4, 0x76, 0x93, 0xA0, 0x95}};
    const GUID handlerId = {0x6E1C7129, 0x61E0, 0x5D88, {0x9F, 0xD4, 0xF3, 0xCE, 0x65, 0xA0, 0x57, 0x19}};
    Address manager2 = nullptr;
    Show("IPackageManager2", static_cast<IUnknown*>(manager)->QueryInterface(manager2Id, &manager2));
    HSTRING string = nullptr;
    WindowsCreateString(name.c_str(), static_cast<UINT32>(name.size()), &string);
    Address operation = nullptr;
    Show("remove", Call(manager2, 6, string, UINT32{0x80000}, &operation));
    WindowsDeleteString(string);
    Release(manager2);
    if (operation == nullptr)
        return;
    const Address result = Await(operation, handlerId);
    if (result != nullptr)
    {
        HRESULT code = S_OK;
        HSTRING text = nullptr;
        Show("get_ExtendedErrorCode", Call(result, 8, &code));
        Show("get_ErrorText", Call(result, 6, &text));
        std::printf("result: 0x%08lX [%ls]\n", static_cast<ULONG>(code), Take(text).c_str());
    }
    Release(result);
    Release(operation);
}

int Packages(bool doRemove)
{
    const GUID factoryId = {0x00000035, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    const GUID managerId = {0x9A7D4B65, 0x5E8F, 0x4FC7, {0xA2, 0xE5, 0x7F, 0x69, 0x25, 0xCB, 0x8B, 0x53}};
    const Address factory = Activate(L"Windows.Management.Deployment.PackageManager", factoryId);
    Address instance = nullptr;
    if (factory == nullptr || FAILED(Show("ActivateInstance", Call(factory, 6, &instance))) || instance == nullptr)
        return 1;
    Address manager = nullptr;
    Show("IPackageManager", static_cast<IUnknown*>(instance)->QueryInterface(managerId, &manager));
    Address list = nullptr;
    Address iterator = nullptr;
    if (SUCCEEDED(Show("FindPackages", Call(manager, 11, &list))) && list != nullptr &&
        SUCCEEDED(Show("First", Call(list, 6, &iterator))) && iterator != nullptr)
    {
        boolean hasCurrent = 2;
        HRESULT walk = Call(iterator, 7, &hasCurrent);
        while (SUCCEEDED(walk) && hasCurrent == 1)
        {
            Address package = nullptr;
            walk = Show("get_Current", Call(iterator, 6, &package));
            if (SUCCEEDED(walk) && package != nullptr)
            {
                const std::wstring name = ShowPackage(package);
                if (doRemove && !name.empty())
                    Remove(manager, name);
            }
            Release(package);
            if (SUCCEEDED(walk))
                walk = Show("MoveNext", Call(iterator, 8, &hasCurrent));
        }
    }
    Show("wrong slot", Call(manager, 12, &list));
    Release(iterator);
    Release(list);
    Release(manager);
    Release(instance);
    Release(factory);
    return 0;
}

// A list of one Store id; its iterator is the list itself.
struct Ids : IUnknown
{
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override
    {
        *object = this;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&references)); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(InterlockedDecrement(&references)); }
    virtual HRESULT STDMETHODCALLTYPE GetIids(Address, Address) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeClassName(Address) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetTrustLevel(Address) { return E_NOTIMPL; }

    LONG references = 1;

protected:
    ~Ids() = default;
};

struct IdIterator final : Ids
{
    virtual HRESULT STDMETHODCALLTYPE get_Current(HSTRING* id) { return WindowsCreateString(L"ID000000000A", 12, id); }
    virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* has)
    {
        *has = isAtEnd ? FALSE : TRUE;
        return S_OK;
    }
    virtual HRESULT STDMETHODCALLTYPE MoveNext(boolean* has)
    {
        isAtEnd = true;
        *has = FALSE;
        return S_OK;
    }
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32, HSTRING* ids, UINT32* count)
    {
        *count = isAtEnd ? 0 : 1;
        const HRESULT result = isAtEnd ? S_OK : get_Current(ids);
        isAtEnd = true;
        return result;
    }
    bool isAtEnd = false;
};

struct IdList final : Ids
{
    virtual HRESULT STDMETHODCALLTYPE First(Address* first)
    {
        iterator.AddRef();
        *first = &iterator;
        return S_OK;
    }
    IdIterator iterator;
};

int Install()
{
    const GUID staticsId = {0x9C06EE5F, 0x15C0, 0x4E72, {0x93, 0x30, 0xD6, 0x19, 0x1C, 0xEB, 0xD1, 0x9C}};
    const GUID windowId = {0x3E68D4BD, 0x7135, 0x4D10, {0x80, 0x18, 0x9F, 0xB6, 0xD9, 0xF3, 0x3F, 0xA1}};
    const GUID context3Id = {0xE26226CA, 0x1A01, 0x4730, {0x85, 0xA6, 0xEC, 0xC8, 0x96, 0xE4, 0xAE, 0x38}};
    const GUID handlerId = {0xB3BE0C8B, 0xEF1D, 0x56DC, {0x85, 0x47, 0x4D, 0xA0, 0x6E, 0xA5, 0x63, 0xDF}};
    const Address factory = Activate(L"Windows.Services.Store.StoreContext", staticsId);
    Address context = nullptr;
    if (factory == nullptr || FAILED(Show("GetDefault", Call(factory, 6, &context))) || context == nullptr)
        return 1;
    Address window = nullptr;
    if (SUCCEEDED(Show("IInitializeWithWindow", static_cast<IUnknown*>(context)->QueryInterface(windowId, &window))))
        Show("Initialize", Call(window, 3, GetDesktopWindow()));
    Release(window);
    Address context3 = nullptr;
    static IdList ids;  // outlives everything: the component looks at its count when the process ends
    if (SUCCEEDED(Show("IStoreContext3", static_cast<IUnknown*>(context)->QueryInterface(context3Id, &context3))))
    {
        Address operation = nullptr;
        Show("request", Call(context3, 15, &ids, &operation));
        if (operation != nullptr)
        {
            const Address result = Await(operation, handlerId);
            INT32 state = -1;
            if (result != nullptr)
                Show("get_OverallState", Call(result, 6, &state));
            std::printf("state: %d\n", state);
            Release(result);
            Release(operation);
        }
    }
    Release(context3);
    Release(context);
    Release(factory);
    return 0;
}
}  // namespace

int main(int count, char** arguments)
{
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    const std::string_view what = count > 1 ? arguments[1] : "";
    CO_MTA_USAGE_COOKIE cookie{};
    if (count > 2)
        CoIncrementMTAUsage(&cookie);
    if (what == "install")
        return Install();
    if (what == "query" || what == "remove")
        return Packages(what == "remove");
    std::fputs("usage: winrt_probe query | remove | install [mta]\n", stderr);
    return 2;
}
