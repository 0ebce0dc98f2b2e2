#include "support/fake_runtime.h"

#include <oaidl.h>
#include <oleauto.h>

#include <utility>

namespace repair
{
namespace
{
using component::Bool;
using component::Object;
using component::String;

FakeRuntime* current = nullptr;
std::atomic<int> liveStrings = 0;
std::atomic<int> liveBasicStrings = 0;

using LookUp = FARPROC WINAPI(HMODULE, const char*);
LookUp* realLookUp = nullptr;  // set by the first FakeRuntime

template <typename Function>
Function* Real(const wchar_t* dll, const char* name)
{
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(realLookUp(LoadLibraryW(dll), name)));
}

// --- Functions that the product looks up
HRESULT WINAPI CreateStringShim(const wchar_t* text, UINT32 length, String* string)
{
    static auto* const real =
        Real<HRESULT WINAPI(const wchar_t*, UINT32, String*)>(L"combase.dll", "WindowsCreateString");
    const auto failure = current->faults.fails.find("WindowsCreateString");
    if (failure != current->faults.fails.end())
    {
        return failure->second;
    }
    const HRESULT result = real(text, length, string);
    liveStrings += *string != nullptr ? 1 : 0;
    return result;
}
HRESULT WINAPI DuplicateStringShim(String string, String* copy)
{
    static auto* const real = Real<HRESULT WINAPI(String, String*)>(L"combase.dll", "WindowsDuplicateString");
    const auto failure = current->faults.fails.find("WindowsDuplicateString");
    if (failure != current->faults.fails.end())
    {
        return failure->second;
    }
    const HRESULT result = real(string, copy);
    liveStrings += *copy != nullptr ? 1 : 0;
    return result;
}
HRESULT WINAPI DeleteStringShim(String string)
{
    static auto* const real = Real<HRESULT WINAPI(String)>(L"combase.dll", "WindowsDeleteString");
    liveStrings -= string != nullptr ? 1 : 0;
    return real(string);
}
HRESULT WINAPI ActivateShim(String name, const GUID& id, void** factory)
{
    return current->Activate(TextOf(name), id, factory);
}
HRESULT WINAPI IncrementShim(void** cookie)
{
    current->Record(L"mta");
    current->hasApartment = true;
    *cookie = current;
    return S_OK;
}
void WINAPI FreeShim(BSTR text)
{
    static auto* const real = Real<void WINAPI(BSTR)>(L"oleaut32.dll", "SysFreeString");
    liveBasicStrings -= text != nullptr ? 1 : 0;
    real(text);
}

FARPROC WINAPI LookUpShim(HMODULE module, const char* name)
{
    static const std::map<std::string, void*> shims = {
        {"RoGetActivationFactory", reinterpret_cast<void*>(&ActivateShim)},
        {"CoIncrementMTAUsage", reinterpret_cast<void*>(&IncrementShim)},
        {"WindowsCreateString", reinterpret_cast<void*>(&CreateStringShim)},
        {"WindowsDuplicateString", reinterpret_cast<void*>(&DuplicateStringShim)},
        {"WindowsDeleteString", reinterpret_cast<void*>(&DeleteStringShim)},
        {"SysFreeString", reinterpret_cast<void*>(&FreeShim)},
    };
    if (reinterpret_cast<UINT_PTR>(name) <= 0xFFFF)
    {
        return realLookUp(module, name);  // by number
    }
    if (current != nullptr && current->missingFunctions.count(name) != 0)
    {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    const auto shim = shims.find(name);
    return shim == shims.end() ? realLookUp(module, name) : reinterpret_cast<FARPROC>(shim->second);
}

// --- Error objects
BSTR MakeBasicString(const std::wstring& text)
{
    ++liveBasicStrings;
    return SysAllocString(text.c_str());
}

struct RestrictedErrorInfo : ::IUnknown
{
    static constexpr GUID kId = component::Id("82BA7092-4C88-427D-A7BC-16DD93FEB67E");
    virtual HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR*, HRESULT*, BSTR*, BSTR*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetReference(BSTR*) { return E_NOTIMPL; }
};
struct ErrorInfo : ::IErrorInfo
{
    static constexpr GUID kId = component::Id("1CF2B120-547D-101B-8E65-08002B2BD119");
};

class ErrorObject final : public Object<ErrorInfo, RestrictedErrorInfo>
{
public:
    std::wstring description;
    bool isRestricted = false;
    HRESULT code = S_OK;
    const wchar_t* restrictedDescription = nullptr;
    HRESULT detailsResult = S_OK;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override
    {
        if (id == RestrictedErrorInfo::kId && !isRestricted)
        {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        return Object::QueryInterface(id, object);
    }
    HRESULT STDMETHODCALLTYPE GetGUID(GUID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetSource(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetDescription(BSTR* text) override
    {
        *text = MakeBasicString(description);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR* text, HRESULT* error, BSTR* restrictedText, BSTR* sid) override
    {
        *text = MakeBasicString(description);
        *error = code;
        *restrictedText = restrictedDescription == nullptr ? nullptr : MakeBasicString(restrictedDescription);
        *sid = MakeBasicString(L"S-1-15");
        return detailsResult;
    }
};

// --- Operations
template <typename Kind, typename MakeResult>
class Operation final : public Object<component::AsyncOperation<Kind>, component::AsyncInfo>
{
public:
    Operation(Ending ending, Faults faults, MakeResult makeResult)
        : ending_(ending),
          faults_(std::move(faults)),
          makeResult_(std::move(makeResult)),
          status_(ending.when == Completion::kBefore ? ending.status : 0)
    {
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override
    {
        if (id == component::AsyncInfo::kId && faults_.fails.count("QueryInterface(IAsyncInfo)") != 0)
        {
            *object = nullptr;
            return faults_.fails["QueryInterface(IAsyncInfo)"];
        }
        return Object<component::AsyncOperation<Kind>, component::AsyncInfo>::QueryInterface(id, object);
    }
    HRESULT STDMETHODCALLTYPE GetStatus(std::int32_t* status) override
    {
        *status = status_;
        return current->ResultOf(faults_, "GetAsyncStatus");
    }
    HRESULT STDMETHODCALLTYPE PutCompleted(component::Completed* handler) override
    {
        current->Record(L"complete");
        const HRESULT result = current->ResultOf(faults_, "PutCompleted");
        if (FAILED(result))
        {
            return result;
        }
        CheckHandler(handler);
        handler->AddRef();
        this->AddRef();
        const auto finish = [this, handler] {
            status_ = ending_.status;
            EXPECT_EQ(handler->Invoke(static_cast<component::AsyncOperation<Kind>*>(this), ending_.status), S_OK);
        };
        if (ending_.when == Completion::kInside)
        {
            finish();
            Let(handler);
        }
        else
        {
            // The handler is kept a while longer than the waiter needs it.
            current->Later([this, handler, finish] {
                Sleep(5);
                finish();
                Sleep(5);
                Let(handler);
            });
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetResults(typename Kind::Result** result) override
    {
        current->Record(L"results");
        *result = nullptr;
        const HRESULT code = current->ResultOf(faults_, "GetResults");
        if (SUCCEEDED(code) && faults_.nulls.count("GetResults") == 0)
        {
            *result = makeResult_();
        }
        return code;
    }

private:
    static void CheckHandler(component::Completed* handler)
    {
        for (const GUID& id : {IID_IUnknown, Kind::kHandlerId, component::kAgileObject})
        {
            void* found = nullptr;
            EXPECT_EQ(handler->QueryInterface(id, &found), S_OK);
            EXPECT_EQ(found, static_cast<void*>(handler));
            handler->Release();
        }
        void* found = handler;
        EXPECT_EQ(handler->QueryInterface(component::kInspectable, &found), E_NOINTERFACE);  // a delegate is none
        EXPECT_EQ(found, nullptr);
    }
    void Let(component::Completed* handler)
    {
        const ULONG left = handler->Release();
        current->Record(L"handler left with " + std::to_wstring(left));
        this->Release();
    }

    Ending ending_;
    Faults faults_;
    MakeResult makeResult_;
    std::atomic<std::int32_t> status_;
};

class RemovalResult final : public Object<component::DeploymentResult>
{
public:
    explicit RemovalResult(FakePackage package) : package_(std::move(package)) {}
    HRESULT STDMETHODCALLTYPE GetErrorText(String* text) override
    {
        *text = MakeString(package_.removalText);
        return current->ResultOf(package_.faults, "GetErrorText");
    }
    HRESULT STDMETHODCALLTYPE GetExtendedErrorCode(HRESULT* code) override
    {
        *code = package_.removalError;
        return current->ResultOf(package_.faults, "GetExtendedErrorCode");
    }

private:
    FakePackage package_;
};

class InstallResult final : public Object<component::UpdateResult>
{
public:
    HRESULT STDMETHODCALLTYPE GetOverallState(std::int32_t* state) override
    {
        *state = current->updateState;
        return current->ResultOf(current->faults, "GetOverallState");
    }
};

// --- Packages. Each getter hands out a new object.
class StatusObject final : public Object<component::PackageStatus>
{
public:
    explicit StatusObject(FakePackage& package) : package_(package) {}
    HRESULT STDMETHODCALLTYPE VerifyIsOK(Bool* isOk) override
    {
        *isOk = package_.isOk ? 1 : 0;
        return current->ResultOf(package_.faults, "VerifyIsOK");
    }

private:
    FakePackage& package_;
};

class IdObject final : public Object<component::PackageId>
{
public:
    explicit IdObject(FakePackage& package) : package_(package) {}
    HRESULT STDMETHODCALLTYPE GetVersion(component::Version* version) override
    {
        *version = package_.version;
        return current->ResultOf(package_.faults, "GetVersion");
    }
    HRESULT STDMETHODCALLTYPE GetFullName(String* name) override
    {
        const HRESULT result = current->ResultOf(package_.faults, "GetFullName");
        *name =
            SUCCEEDED(result) && package_.faults.nulls.count("GetFullName") == 0 ? MakeString(package_.name) : nullptr;
        return result;
    }

private:
    FakePackage& package_;
};

class PackageObject final : public Object<component::Package, component::Package3>
{
public:
    explicit PackageObject(FakePackage& package) : package_(package) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override
    {
        *object = nullptr;
        const HRESULT result =
            id == component::Package3::kId ? current->ResultOf(package_.faults, "QueryInterface(IPackage3)") : S_OK;
        return FAILED(result) ? result : Object::QueryInterface(id, object);
    }
    HRESULT STDMETHODCALLTYPE GetId(component::PackageId** id) override
    {
        const HRESULT result = current->ResultOf(package_.faults, "GetId");
        *id = SUCCEEDED(result) && package_.faults.nulls.count("GetId") == 0 ? new IdObject(package_) : nullptr;
        return result;
    }
    HRESULT STDMETHODCALLTYPE GetStatus(component::PackageStatus** status) override
    {
        const HRESULT result = current->ResultOf(package_.faults, "GetStatus");
        *status =
            SUCCEEDED(result) && package_.faults.nulls.count("GetStatus") == 0 ? new StatusObject(package_) : nullptr;
        return result;
    }

private:
    FakePackage& package_;
};

class IteratorObject final : public Object<component::PackageIterator>
{
public:
    HRESULT STDMETHODCALLTYPE GetCurrent(component::Package** package) override
    {
        *package = nullptr;
        const HRESULT result = current->ResultOf(current->faults, "GetCurrent");
        if (SUCCEEDED(result) && next_->faults.nulls.count("GetCurrent") == 0)
        {
            *package = new PackageObject(*next_);
        }
        return result;
    }
    HRESULT STDMETHODCALLTYPE GetHasCurrent(Bool* has) override
    {
        has[0] = next_ != current->packages.end() ? 1 : 0;  // one byte: what stands beside it is not ours
        return current->ResultOf(current->faults, "GetHasCurrent");
    }
    HRESULT STDMETHODCALLTYPE MoveNext(Bool* has) override
    {
        ++next_;
        has[0] = next_ != current->packages.end() ? 1 : 0;
        return current->ResultOf(current->faults, "MoveNext");
    }

private:
    std::list<FakePackage>::iterator next_ = current->packages.begin();
};

class PackagesObject final : public Object<component::PackageIterable>
{
public:
    HRESULT STDMETHODCALLTYPE First(component::PackageIterator** first) override
    {
        const HRESULT result = current->ResultOf(current->faults, "First");
        *first = SUCCEEDED(result) && current->faults.nulls.count("First") == 0 ? new IteratorObject : nullptr;
        return result;
    }
};

class ManagerObject final : public Object<component::PackageManager, component::PackageManager2>
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override
    {
        *object = nullptr;
        const HRESULT result = id == component::PackageManager2::kId
                                   ? current->ResultOf(current->faults, "QueryInterface(IPackageManager2)")
                                   : S_OK;
        return FAILED(result) ? result : Object::QueryInterface(id, object);
    }
    HRESULT STDMETHODCALLTYPE FindPackages(component::PackageIterable** found) override
    {
        current->Record(L"find");
        const HRESULT result = current->ResultOf(current->faults, "FindPackages");
        *found = SUCCEEDED(result) && current->faults.nulls.count("FindPackages") == 0 ? new PackagesObject : nullptr;
        return result;
    }
    HRESULT STDMETHODCALLTYPE RemovePackage(String name, UINT32 options,
                                            component::AsyncOperation<component::DeploymentKind>** operation) override
    {
        wchar_t hex[16] = {};
        wsprintfW(hex, L"0x%X", options);
        current->Record(L"remove " + TextOf(name) + L" " + hex);
        *operation = nullptr;
        for (const FakePackage& package : current->packages)
        {
            if (package.name == TextOf(name))
            {
                const HRESULT result = current->ResultOf(package.faults, "RemovePackage");
                if (SUCCEEDED(result) && package.faults.nulls.count("RemovePackage") == 0)
                {
                    *operation = MakeRemoval(package);
                }
                return result;
            }
        }
        return E_INVALIDARG;
    }
};

class ManagerFactory final : public Object<component::ActivationFactory>
{
public:
    HRESULT STDMETHODCALLTYPE ActivateInstance(component::Inspectable** instance) override
    {
        current->Record(L"create");
        const HRESULT result = current->ResultOf(current->faults, "ActivateInstance");
        auto* const manager =
            SUCCEEDED(result) && current->faults.nulls.count("ActivateInstance") == 0 ? new ManagerObject : nullptr;
        *instance = static_cast<component::PackageManager*>(manager);
        return result;
    }
};

// --- The Store
class ContextObject final
    : public Object<component::StoreContext, component::StoreContext3, component::InitializeWithWindow>
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override
    {
        *object = nullptr;
        HRESULT result = S_OK;
        if (id == component::InitializeWithWindow::kId)
        {
            result = current->ResultOf(current->faults, "QueryInterface(IInitializeWithWindow)");
        }
        if (id == component::StoreContext3::kId)
        {
            result = current->ResultOf(current->faults, "QueryInterface(IStoreContext3)");
        }
        return FAILED(result) ? result : Object::QueryInterface(id, object);
    }
    HRESULT STDMETHODCALLTYPE Initialize(HWND window) override
    {
        current->Record(L"window " + std::to_wstring(reinterpret_cast<UINT_PTR>(window)));
        return current->ResultOf(current->faults, "Initialize");
    }
    HRESULT STDMETHODCALLTYPE DownloadAndInstall(component::StringIterable* ids,
                                                 component::AsyncOperation<component::UpdateKind>** operation) override
    {
        component::StringIterator* iterator = nullptr;
        EXPECT_EQ(ids->First(&iterator), S_OK);
        std::wstring line = L"install";
        Bool has = 0;
        for (iterator->GetHasCurrent(&has); has != 0; iterator->MoveNext(&has))
        {
            String id = nullptr;
            EXPECT_EQ(iterator->GetCurrent(&id), S_OK);
            line += L" " + TextOf(id);
            DeleteString(id);
        }
        iterator->Release();
        current->Record(line);
        current->onUpdate(ids);
        *operation = nullptr;
        const HRESULT result = current->ResultOf(current->faults, "DownloadAndInstall");
        if (SUCCEEDED(result) && current->faults.nulls.count("DownloadAndInstall") == 0)
        {
            const auto makeResult = [] { return new InstallResult; };
            *operation = new Operation<component::UpdateKind, decltype(makeResult)>(current->update, current->faults,
                                                                                    makeResult);
        }
        return result;
    }
};

class ContextFactory final : public Object<component::StoreContextStatics>
{
public:
    HRESULT STDMETHODCALLTYPE GetDefault(component::StoreContext** context) override
    {
        current->Record(L"default");
        const HRESULT result = current->ResultOf(current->faults, "GetDefault");
        *context = SUCCEEDED(result) && current->faults.nulls.count("GetDefault") == 0 ? new ContextObject : nullptr;
        return result;
    }
};
}  // namespace

::IUnknown* MakeErrorObject(const std::wstring& description, bool restricted, HRESULT code,
                            const wchar_t* restrictedDescription, HRESULT detailsResult)
{
    auto* const error = new ErrorObject;
    error->description = description;
    error->isRestricted = restricted;
    error->code = code;
    error->restrictedDescription = restrictedDescription;
    error->detailsResult = detailsResult;
    return static_cast<ErrorInfo*>(error);
}

void LeaveErrorObject(::IUnknown* error)
{
    EXPECT_EQ(SetErrorInfo(0, static_cast<::IErrorInfo*>(error)), S_OK);
    error->Release();
}

FakeRuntime::FakeRuntime() : lookUp_((current = this, &__imp_GetProcAddress), &LookUpShim)
{
    realLookUp = realLookUp != nullptr ? realLookUp : reinterpret_cast<LookUp*>(lookUp_.Original());
}

FakeRuntime::~FakeRuntime()
{
    WaitForThreads();
    current = nullptr;
}

FakeRuntime& FakeRuntime::Current()
{
    return *current;
}

std::vector<std::wstring> FakeRuntime::Calls() const
{
    const std::lock_guard lock(mutex_);
    return calls_;
}

void FakeRuntime::Record(const std::wstring& call)
{
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
}

HRESULT FakeRuntime::ResultOf(const Faults& where, const std::string& method)
{
    const auto failure = where.fails.find(method);
    if (failure == where.fails.end())
    {
        return S_OK;
    }
    const auto text = where.texts.find(method);
    if (text != where.texts.end())
    {
        LeaveErrorObject(MakeErrorObject(text->second, true, failure->second));
    }
    return failure->second;
}

HRESULT FakeRuntime::Activate(const std::wstring& name, const GUID& id, void** factory)
{
    onActivation();
    const bool isManager = name == L"Windows.Management.Deployment.PackageManager";
    const bool isContext = name == L"Windows.Services.Store.StoreContext";
    const bool idFits = id == (isManager ? component::ActivationFactory::kId : component::StoreContextStatics::kId);
    Record(L"activate " + name + (idFits ? L"" : L" by another id"));
    if (withoutApartment != S_OK && !hasApartment)
    {
        return withoutApartment;
    }
    const HRESULT result = ResultOf(faults, "activation");
    if (FAILED(result) || faults.nulls.count("activation") != 0)
    {
        return result;
    }
    if (!idFits || (!isManager && !isContext))
    {
        return static_cast<HRESULT>(0x80040154);
    }
    *factory = isManager ? static_cast<void*>(static_cast<component::ActivationFactory*>(new ManagerFactory))
                         : static_cast<void*>(static_cast<component::StoreContextStatics*>(new ContextFactory));
    return S_OK;
}

void FakeRuntime::Later(std::function<void()> action)
{
    threads_.emplace_back(std::move(action));
}

void FakeRuntime::WaitForThreads()
{
    for (std::thread& thread : threads_)
    {
        thread.join();
    }
    threads_.clear();
}

int LiveStrings()
{
    return liveStrings;
}

int LiveBasicStrings()
{
    return liveBasicStrings;
}

String MakeString(const std::wstring& text)
{
    static auto* const real =
        Real<HRESULT WINAPI(const wchar_t*, UINT32, String*)>(L"combase.dll", "WindowsCreateString");
    String string = nullptr;
    EXPECT_EQ(real(text.c_str(), static_cast<UINT32>(text.size()), &string), S_OK);
    liveStrings += string != nullptr ? 1 : 0;
    return string;
}

std::wstring TextOf(String text)
{
    static auto* const real =
        Real<const wchar_t * WINAPI(String, UINT32*)>(L"combase.dll", "WindowsGetStringRawBuffer");
    UINT32 length = 0;
    const wchar_t* const buffer = real(text, &length);
    return std::wstring(buffer, length);
}

void DeleteString(String text)
{
    DeleteStringShim(text);
}

component::AsyncOperation<component::DeploymentKind>* MakeRemoval(const FakePackage& package)
{
    const auto makeResult = [package] { return new RemovalResult(package); };
    return new Operation<component::DeploymentKind, decltype(makeResult)>(package.removal, package.faults, makeResult);
}
}  // namespace repair
