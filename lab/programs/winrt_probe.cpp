// Removes the first package through the lab's Windows Runtime component and breaks its rules on the way. The component
// must refuse or record each violation.
//
// usage: winrt_probe [leak]        "leak": some objects are not released
// Prints what came back, one fact a line.
#include <windows.h>
#include <roapi.h>
#include <winstring.h>

#include <cstdio>

#include "winrt/com_object.h"

namespace abi = winrt_abi;

HRESULT winrt_abi::UnusedSlot(const wchar_t*, const wchar_t*)
{
    return E_NOTIMPL;
}

namespace
{
// Prints the result. Returns whether the call succeeded.
bool Show(const char* what, HRESULT result)
{
    std::printf("%s: 0x%08lX\n", what, static_cast<ULONG>(result));
    return SUCCEEDED(result);
}

struct IHandler : abi::ICompletedHandler
{
    static constexpr GUID kIid = abi::IDeploymentOperation::kHandlerIid;

protected:
    ~IHandler() = default;
};

// The handler of a finished operation; it does not have to be agile.
class Handler final : public abi::ComObject<IHandler, abi::IAgileObject>
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

void AwaitRunning(abi::IDeploymentOperation* operation, bool leaks)
{
    abi::IInspectable* early = nullptr;
    Show("early results", operation->GetResults(&early));
    auto* const unwilling = new Handler(false);
    Show("handler that is not agile", operation->put_Completed(unwilling));
    unwilling->Release();
    auto* const handler = new Handler(true);
    Show("put_Completed", operation->put_Completed(handler));
    std::printf("called inside: %s\n", WaitForSingleObject(handler->done, 0) == WAIT_OBJECT_0 ? "yes" : "no");
    Show("second put_Completed", operation->put_Completed(handler));
    WaitForSingleObject(handler->done, 5000);
    std::printf("status: %d, own thread: %s\n", handler->status,
                handler->thread == GetCurrentThreadId() ? "yes" : "no");
    if (!leaks)
    {
        handler->Release();
    }
}

void Remove(abi::IPackageManager2* manager, HSTRING name, bool leaks)
{
    abi::IDeploymentOperation* operation = nullptr;
    if (!Show("remove", manager->RemovePackageWithOptionsAsync(name, 0x80000, &operation)))
    {
        return;
    }
    void* found = nullptr;
    operation->QueryInterface(abi::IAsyncInfo::kIid, &found);
    auto* const info = static_cast<abi::IAsyncInfo*>(found);
    INT32 status = -1;
    info->get_Status(&status);
    info->Release();
    std::printf("status: %d\n", status);
    if (status == abi::kStarted)
    {
        AwaitRunning(operation, leaks);
    }
    abi::IInspectable* result = nullptr;
    Show("GetResults", operation->GetResults(&result));
    result->Release();
    operation->Release();
}

void RemoveFirst(abi::IPackageManager* manager, abi::IPackageIterator* iterator, bool leaks)
{
    boolean hasCurrent = FALSE;
    abi::IPackage* package = nullptr;
    abi::IPackageId* id = nullptr;
    HSTRING name = nullptr;
    void* manager2 = nullptr;
    iterator->get_HasCurrent(&hasCurrent);
    if (hasCurrent == FALSE)
    {
        return;
    }
    iterator->get_Current(&package);
    package->get_Id(&id);
    id->get_FullName(&name);
    manager->QueryInterface(abi::IPackageManager2::kIid, &manager2);
    Remove(static_cast<abi::IPackageManager2*>(manager2), name, leaks);
    WindowsDeleteString(name);
    static_cast<abi::IPackageManager2*>(manager2)->Release();
    id->Release();
    if (!leaks)
    {
        package->Release();
    }
    while (hasCurrent != FALSE && SUCCEEDED(iterator->MoveNext(&hasCurrent)))
    {
    }
}
}  // namespace

int main(int count, char**)
{
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    HSTRING name = nullptr;
    void* factory = nullptr;
    WindowsCreateString(abi::kPackageManagerClass, static_cast<UINT32>(std::wcslen(abi::kPackageManagerClass)), &name);
    if (!Show("activation", RoGetActivationFactory(name, abi::IActivationFactory::kIid, &factory)))
    {
        return 1;
    }
    WindowsDeleteString(name);
    abi::IInspectable* instance = nullptr;
    static_cast<abi::IActivationFactory*>(factory)->ActivateInstance(&instance);
    static_cast<abi::IActivationFactory*>(factory)->Release();
    auto* const manager = static_cast<abi::IPackageManager*>(instance);  // the object's identity
    abi::IPackageIterable* list = nullptr;
    abi::IPackageIterator* iterator = nullptr;
    manager->FindPackagesByUserSecurityId(nullptr, &list);  // a wrong slot
    manager->FindPackages(&list);
    list->First(&iterator);
    list->Release();
    RemoveFirst(manager, iterator, count > 1);
    iterator->Release();
    manager->Release();
    return 0;
}
