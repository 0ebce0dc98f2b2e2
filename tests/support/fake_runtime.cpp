#include "support/fake_runtime.h"

#include <windows.h>

#include <oleauto.h>

#include <gtest/gtest.h>

#include <utility>

#include "lab/standins/winrt/com_object.h"

HRESULT winrt_abi::UnusedSlot(const wchar_t* interfaceName, const wchar_t* method)
{
    ADD_FAILURE() << testing::PrintToString(interfaceName) << ": " << testing::PrintToString(method) << " was called";
    return E_NOTIMPL;
}

namespace repair
{
namespace
{
FakeRuntime* current = nullptr;
std::atomic<int> liveObjects = 0;
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
HRESULT WINAPI CreateStringShim(const wchar_t* text, UINT32 length, HSTRING* string)
{
    static auto* const real = Real<decltype(CreateStringShim)>(L"combase.dll", "WindowsCreateString");
    const HRESULT failure = FakeRuntime::ResultOf(current->faults, L"WindowsCreateString");
    const HRESULT result = FAILED(failure) ? failure : real(text, length, string);
    liveStrings += SUCCEEDED(result) && *string != nullptr ? 1 : 0;
    return result;
}
HRESULT WINAPI DuplicateStringShim(HSTRING string, HSTRING* copy)
{
    static auto* const real = Real<decltype(DuplicateStringShim)>(L"combase.dll", "WindowsDuplicateString");
    const HRESULT failure = FakeRuntime::ResultOf(current->faults, L"WindowsDuplicateString");
    const HRESULT result = FAILED(failure) ? failure : real(string, copy);
    liveStrings += SUCCEEDED(result) && *copy != nullptr ? 1 : 0;
    return result;
}
HRESULT WINAPI DeleteStringShim(HSTRING string)
{
    static auto* const real = Real<decltype(DeleteStringShim)>(L"combase.dll", "WindowsDeleteString");
    liveStrings -= string != nullptr ? 1 : 0;
    return real(string);
}
HRESULT WINAPI ActivateShim(HSTRING name, const GUID& id, void** factory)
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
    static auto* const real = Real<decltype(FreeShim)>(L"oleaut32.dll", "SysFreeString");
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

// --- Objects, counted so that a leak shows. Without faults of their own, which must outlive them, they follow those of
// the current runtime.
template <typename... Interfaces>
class FakeObject : public component::ComObject<Interfaces...>
{
public:
    explicit FakeObject(const Faults* faults = nullptr) : faults_(faults) { ++liveObjects; }

protected:
    ~FakeObject() override { --liveObjects; }

    HRESULT Refuse(const GUID& iid) override
    {
        HRESULT result = S_OK;
        ((result = iid == Interfaces::kIid ? ResultOf(Interfaces::kName) : result), ...);
        return result;
    }

    const Faults& OwnFaults() const { return faults_ == nullptr ? current->faults : *faults_; }

    HRESULT ResultOf(const std::wstring& method) const { return FakeRuntime::ResultOf(OwnFaults(), method); }

    // Ends a method: fails, succeeds without an object, or hands out what `make` returns. A failing method hands out
    // plain values all the same.
    template <typename Value, typename Make>
    HRESULT Give(const std::wstring& method, Value* value, Make make) const
    {
        const HRESULT result = ResultOf(method);
        if constexpr (std::is_pointer_v<Value>)
        {
            *value = SUCCEEDED(result) && OwnFaults().nulls.count(method) == 0 ? make() : nullptr;
        }
        else
        {
            *value = make();
        }
        return result;
    }

private:
    const Faults* faults_;
};

BSTR MakeBasicString(const std::wstring& text)
{
    ++liveBasicStrings;
    return SysAllocString(text.c_str());
}

const Faults kNoFaults;
const Faults kNotRestricted = {{{L"IRestrictedErrorInfo", E_NOINTERFACE}}, {}, {}};

class ErrorObject final : public FakeObject<component::IErrorInfo, component::IRestrictedErrorInfo>
{
public:
    explicit ErrorObject(ErrorDescription error)
        : FakeObject(error.isRestricted ? &kNoFaults : &kNotRestricted), error_(std::move(error))
    {
    }

    HRESULT STDMETHODCALLTYPE GetDescription(BSTR* text) override
    {
        *text = MakeBasicString(error_.description);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR* text, HRESULT* code, BSTR* restrictedText, BSTR* sid) override
    {
        *text = MakeBasicString(error_.description);
        *code = error_.code;
        *restrictedText =
            error_.restrictedDescription == nullptr ? nullptr : MakeBasicString(error_.restrictedDescription);
        *sid = MakeBasicString(L"S-1-15");
        return error_.detailsResult;
    }

private:
    ErrorDescription error_;
};

// --- Operations
template <typename Interface>
class Operation final : public FakeObject<Interface, component::IAsyncInfo>
{
public:
    using MakeResult = std::function<component::IInspectable*()>;

    Operation(Ending ending, const Faults* faults, MakeResult makeResult)
        : FakeObject<Interface, component::IAsyncInfo>(faults),
          ending_(ending),
          makeResult_(std::move(makeResult)),
          status_(ending.when == Completion::kBefore ? ending.status : component::kStarted)
    {
    }

    HRESULT STDMETHODCALLTYPE get_Status(INT32* status) override
    {
        return this->Give(L"IAsyncInfo.get_Status", status, [this] { return status_.load(); });
    }
    HRESULT STDMETHODCALLTYPE get_ErrorCode(HRESULT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_Completed(component::ICompletedHandler* handler) override
    {
        current->Record(L"complete");
        const HRESULT result = this->ResultOf(L"put_Completed");
        if (FAILED(result))
        {
            return result;
        }
        CheckHandler(handler);
        handler->AddRef();
        this->AddRef();
        if (ending_.when == Completion::kInside)
        {
            Finish(handler);
            LetGo(handler);
            return S_OK;
        }
        // The handler is kept a while longer than the waiter needs it.
        current->Later([this, handler] {
            Sleep(5);
            Finish(handler);
            Sleep(5);
            LetGo(handler);
        });
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetResults(component::IInspectable** result) override
    {
        current->Record(L"results");
        return this->Give(L"GetResults", result, makeResult_);
    }

private:
    static void CheckHandler(component::ICompletedHandler* handler)
    {
        for (const GUID& id : {IID_IUnknown, Interface::kHandlerIid, component::IAgileObject::kIid})
        {
            void* found = nullptr;
            EXPECT_EQ(handler->QueryInterface(id, &found), S_OK);
            EXPECT_EQ(found, static_cast<void*>(handler));
            handler->Release();
        }
        void* found = handler;
        EXPECT_EQ(handler->QueryInterface(component::IInspectable::kIid, &found), E_NOINTERFACE);  // a delegate is none
        EXPECT_EQ(found, nullptr);
    }
    void Finish(component::ICompletedHandler* handler)
    {
        status_ = ending_.status;
        EXPECT_EQ(handler->Invoke(static_cast<Interface*>(this), ending_.status), S_OK);
    }
    void LetGo(component::ICompletedHandler* handler)
    {
        const ULONG left = handler->Release();
        current->Record(L"handler left with " + std::to_wstring(left));
        this->Release();
    }

    Ending ending_;
    MakeResult makeResult_;
    std::atomic<std::int32_t> status_;
};

class RemovalResult final : public FakeObject<component::IDeploymentResult>
{
public:
    explicit RemovalResult(const FakePackage& package) : FakeObject(&package.faults), package_(package) {}
    HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) override
    {
        *text = MakeString(package_.removalText);  // also when it fails: the caller must not lose it
        return ResultOf(L"get_ErrorText");
    }
    HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* code) override
    {
        return Give(L"get_ExtendedErrorCode", code, [this] { return package_.removalError; });
    }

private:
    const FakePackage& package_;
};

class InstallResult final : public FakeObject<component::IStorePackageUpdateResult>
{
public:
    HRESULT STDMETHODCALLTYPE get_OverallState(INT32* state) override
    {
        return Give(L"get_OverallState", state, [] { return current->updateState; });
    }
};

// --- Packages. Each getter hands out a new object.
template <typename... Interfaces>
class PackageObject : public FakeObject<Interfaces...>
{
public:
    explicit PackageObject(const FakePackage& package) : FakeObject<Interfaces...>(&package.faults), package_(package)
    {
    }

protected:
    const FakePackage& package_;
};

class PackageStatus final : public PackageObject<component::IPackageStatus>
{
public:
    using PackageObject::PackageObject;
    HRESULT STDMETHODCALLTYPE VerifyIsOK(boolean* isOk) override
    {
        return Give(L"VerifyIsOK", isOk, [this] { return static_cast<boolean>(package_.isOk ? 1 : 0); });
    }
};

class PackageId final : public PackageObject<component::IPackageId>
{
public:
    using PackageObject::PackageObject;
    HRESULT STDMETHODCALLTYPE get_Version(component::PackageVersion* version) override
    {
        return Give(L"get_Version", version, [this] { return package_.version; });
    }
    HRESULT STDMETHODCALLTYPE get_FullName(HSTRING* name) override
    {
        return Give(L"get_FullName", name, [this] { return MakeString(package_.name); });
    }
};

class Package final : public PackageObject<component::IPackage, component::IPackage3>
{
public:
    using PackageObject::PackageObject;
    HRESULT STDMETHODCALLTYPE get_Id(component::IPackageId** id) override
    {
        return Give(L"get_Id", id, [this] { return new PackageId(package_); });
    }
    HRESULT STDMETHODCALLTYPE get_Status(component::IPackageStatus** status) override
    {
        return Give(L"get_Status", status, [this] { return new PackageStatus(package_); });
    }
};

class PackageIterator final : public FakeObject<component::IPackageIterator>
{
public:
    HRESULT STDMETHODCALLTYPE get_Current(component::IPackage** package) override
    {
        return Give(L"get_Current", package,
                    [this] { return next_->faults.nulls.count(L"get_Current") == 0 ? new Package(*next_) : nullptr; });
    }
    // Booleans are one byte wide: the byte beside it belongs to the caller.
    HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* has) override
    {
        return Give(L"get_HasCurrent", has, [this] { return HasCurrent(); });
    }
    HRESULT STDMETHODCALLTYPE MoveNext(boolean* has) override
    {
        ++next_;
        return Give(L"MoveNext", has, [this] { return HasCurrent(); });
    }

private:
    boolean HasCurrent() const { return next_ != current->packages.end() ? 1 : 0; }

    std::list<FakePackage>::iterator next_ = current->packages.begin();
};

class PackageList final : public FakeObject<component::IPackageIterable>
{
public:
    HRESULT STDMETHODCALLTYPE First(component::IPackageIterator** first) override
    {
        return Give(L"First", first, [] { return new PackageIterator; });
    }
};

class PackageManager final : public FakeObject<component::IPackageManager, component::IPackageManager2>
{
public:
    HRESULT STDMETHODCALLTYPE FindPackages(component::IPackageIterable** found) override
    {
        current->Record(L"find");
        return Give(L"FindPackages", found, [] { return new PackageList; });
    }
    HRESULT STDMETHODCALLTYPE RemovePackageWithOptionsAsync(HSTRING name, UINT32 options,
                                                            component::IDeploymentOperation** operation) override
    {
        constexpr const wchar_t* kMethod = L"RemovePackageWithOptionsAsync";
        wchar_t hex[16] = {};
        wsprintfW(hex, L"0x%X", options);
        current->Record(L"remove " + TextOf(name) + L" " + hex);
        *operation = nullptr;
        for (const FakePackage& package : current->packages)
        {
            if (package.name == TextOf(name))
            {
                const HRESULT result = FakeRuntime::ResultOf(package.faults, kMethod);
                *operation =
                    SUCCEEDED(result) && package.faults.nulls.count(kMethod) == 0 ? MakeRemoval(package) : nullptr;
                return result;
            }
        }
        return E_INVALIDARG;
    }
};

class ManagerFactory final : public FakeObject<component::IActivationFactory>
{
public:
    HRESULT STDMETHODCALLTYPE ActivateInstance(component::IInspectable** instance) override
    {
        current->Record(L"create");
        return Give(L"ActivateInstance", instance,
                    [] { return static_cast<component::IPackageManager*>(new PackageManager); });
    }
};

// --- The Store
std::wstring ReadIds(component::IStringIterable* ids)
{
    component::IStringIterator* iterator = nullptr;
    EXPECT_EQ(ids->First(&iterator), S_OK);
    std::wstring read;
    boolean has = 0;
    for (iterator->get_HasCurrent(&has); has != 0; iterator->MoveNext(&has))
    {
        HSTRING id = nullptr;
        EXPECT_EQ(iterator->get_Current(&id), S_OK);
        read += L" " + TextOf(id);
        DeleteString(id);
    }
    iterator->Release();
    return read;
}

class StoreContext final
    : public FakeObject<component::IStoreContext, component::IStoreContext3, component::IInitializeWithWindow>
{
public:
    HRESULT STDMETHODCALLTYPE Initialize(HWND window) override
    {
        current->Record(L"window " + std::to_wstring(reinterpret_cast<UINT_PTR>(window)));
        return ResultOf(L"Initialize");
    }
    HRESULT STDMETHODCALLTYPE DownloadAndInstallStorePackagesAsync(component::IStringIterable* ids,
                                                                   component::IStoreOperation** operation) override
    {
        current->Record(L"install" + ReadIds(ids));
        current->onUpdate(ids);
        return Give(L"DownloadAndInstallStorePackagesAsync", operation, [] {
            return new Operation<component::IStoreOperation>(current->update, nullptr,
                                                             [] { return new InstallResult; });
        });
    }
};

class ContextFactory final : public FakeObject<component::IStoreContextStatics>
{
public:
    HRESULT STDMETHODCALLTYPE GetDefault(component::IStoreContext** context) override
    {
        current->Record(L"default");
        return Give(L"GetDefault", context, [] { return new StoreContext; });
    }
};
}  // namespace

void LeaveErrorObject(const ErrorDescription& error)
{
    auto* const object = new ErrorObject(error);
    void* const information = static_cast<component::IErrorInfo*>(object);
    EXPECT_EQ(SetErrorInfo(0, static_cast<::IErrorInfo*>(information)), S_OK);
    object->Release();
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

HRESULT FakeRuntime::ResultOf(const Faults& where, const std::wstring& method)
{
    const auto failure = where.fails.find(method);
    const auto text = where.texts.find(method);
    if (failure != where.fails.end() && text != where.texts.end())
    {
        LeaveErrorObject({text->second, true, failure->second});
    }
    return failure == where.fails.end() ? S_OK : failure->second;
}

HRESULT FakeRuntime::Activate(const std::wstring& name, const GUID& id, void** factory)
{
    onActivation();
    const bool isManager = name == component::kPackageManagerClass;
    const bool isContext = name == component::kStoreContextClass;
    const bool idFits = id == (isManager ? component::IActivationFactory::kIid : component::IStoreContextStatics::kIid);
    Record(L"activate " + name + (idFits ? L"" : L" by another id"));
    if (withoutApartment != S_OK && !hasApartment)
    {
        return withoutApartment;
    }
    const HRESULT result = ResultOf(faults, L"activation");
    if (FAILED(result) || faults.nulls.count(L"activation") != 0)
    {
        return result;
    }
    if (!idFits || (!isManager && !isContext))
    {
        return REGDB_E_CLASSNOTREG;
    }
    *factory = isManager ? static_cast<void*>(static_cast<component::IActivationFactory*>(new ManagerFactory))
                         : static_cast<void*>(static_cast<component::IStoreContextStatics*>(new ContextFactory));
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

int LiveObjects()
{
    return liveObjects;
}

int LiveStrings()
{
    return liveStrings;
}

int LiveBasicStrings()
{
    return liveBasicStrings;
}

HSTRING MakeString(const std::wstring& text)
{
    static auto* const real = Real<decltype(CreateStringShim)>(L"combase.dll", "WindowsCreateString");
    HSTRING string = nullptr;
    EXPECT_EQ(real(text.c_str(), static_cast<UINT32>(text.size()), &string), S_OK);
    liveStrings += string != nullptr ? 1 : 0;
    return string;
}

std::wstring TextOf(HSTRING text)
{
    static auto* const real =
        Real<const wchar_t * WINAPI(HSTRING, UINT32*)>(L"combase.dll", "WindowsGetStringRawBuffer");
    UINT32 length = 0;
    const wchar_t* const buffer = real(text, &length);
    return std::wstring(buffer, length);
}

void DeleteString(HSTRING text)
{
    DeleteStringShim(text);
}

component::IDeploymentOperation* MakeRemoval(const FakePackage& package)
{
    return new Operation<component::IDeploymentOperation>(package.removal, &package.faults,
                                                          [&package] { return new RemovalResult(package); });
}
}  // namespace repair
