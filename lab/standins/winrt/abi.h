// The Windows Runtime interfaces in use, declared independently of the product: methods in the order of their slots.
// Shared by the stand-in, its probe, the in-process tests and the Windows check. Each of them defines UnusedSlot, which
// reports a call of a method that the product must not know, so a wrong slot shows.
#pragma once
#include <windows.h>
#include <oaidl.h>
#include <unknwn.h>
#include <winstring.h>

// FOR_EACH(macro, a, b, c) becomes macro(a) macro(b) macro(c), for up to 8 arguments. The comma at the end gives the
// last step an empty argument; without one, Clang's pedantic mode complains.
#define FOR_EACH(macro, ...) SCAN_AGAIN(FOR_EACH_STEP(macro, __VA_ARGS__, ))
#define FOR_EACH_STEP(macro, first, ...) macro(first) __VA_OPT__(FOR_EACH_NEXT PARENTHESES(macro, __VA_ARGS__))
#define FOR_EACH_NEXT() FOR_EACH_STEP
#define PARENTHESES ()
#define SCAN_AGAIN(...) SCAN_TWICE(SCAN_TWICE(SCAN_TWICE(SCAN_TWICE(__VA_ARGS__))))
#define SCAN_TWICE(...) SCAN(SCAN(__VA_ARGS__))
#define SCAN(...) __VA_ARGS__

#define WINRT_INTERFACE(type, iid)                     \
protected:                                             \
    ~type() = default;                                 \
                                                       \
public:                                                \
    static constexpr const wchar_t* kName = L"" #type; \
    static constexpr GUID kIid = Id(iid);

// Methods that the product must not know: with parameters where another caller needs them, otherwise as a list of
// names.
#define UNUSED_METHOD(name, ...)                        \
    virtual HRESULT STDMETHODCALLTYPE name(__VA_ARGS__) \
    {                                                   \
        return UnusedSlot(kName, L"" #name);            \
    }
#define UNUSED_SLOT(name) UNUSED_METHOD(name, void)
#ifdef __cppcheck__  // which cannot expand __VA_OPT__
#define UNUSED_SLOTS(...)
#else
#define UNUSED_SLOTS(...) FOR_EACH(UNUSED_SLOT, __VA_ARGS__)
#endif

namespace winrt_abi
{
HRESULT UnusedSlot(const wchar_t* interfaceName, const wchar_t* method);

// "00000000-0000-0000-0000-000000000000", letters in upper case.
consteval GUID Id(const char (&text)[37])
{
    const auto digit = [](char c) { return static_cast<unsigned>(c <= '9' ? c - '0' : c - 'A' + 10); };
    unsigned bytes[16] = {};
    int count = 0;
    for (int i = 0; i < 36; i += 2)
    {
        i += text[i] == '-' ? 1 : 0;
        bytes[count++] = digit(text[i]) * 16 + digit(text[i + 1]);
    }
    GUID id = {};
    id.Data1 = bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
    id.Data2 = static_cast<unsigned short>(bytes[4] << 8 | bytes[5]);
    id.Data3 = static_cast<unsigned short>(bytes[6] << 8 | bytes[7]);
    for (int i = 0; i < 8; ++i)
    {
        id.Data4[i] = static_cast<unsigned char>(bytes[8 + i]);
    }
    return id;
}

inline constexpr const wchar_t* kPackageManagerClass = L"Windows.Management.Deployment.PackageManager";
inline constexpr const wchar_t* kStoreContextClass = L"Windows.Services.Store.StoreContext";

enum AsyncStatus : INT32
{
    kStarted = 0,
    kCompleted = 1,
    kCanceled = 2,
    kError = 3
};

struct PackageVersion
{
    UINT16 major, minor, build, revision;
};
static_assert(sizeof(PackageVersion) == 8);

struct IInspectable : ::IUnknown
{
    WINRT_INTERFACE(IInspectable, "AF86E2E0-B12D-4C6A-9C5A-D7AA65101E90")
    virtual HRESULT STDMETHODCALLTYPE GetIids(ULONG* count, GUID** iids) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HSTRING* name) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetTrustLevel(INT32* level) = 0;
};

struct IAgileObject : ::IUnknown
{
    WINRT_INTERFACE(IAgileObject, "94EA2B94-E9CC-49E0-C0FF-EE64CA8F5B90")
};

struct IActivationFactory : IInspectable
{
    WINRT_INTERFACE(IActivationFactory, "00000035-0000-0000-C000-000000000046")
    virtual HRESULT STDMETHODCALLTYPE ActivateInstance(IInspectable** instance) = 0;
};

// --- Errors that carry a text

struct IErrorInfo : ::IUnknown
{
    WINRT_INTERFACE(IErrorInfo, "1CF2B120-547D-101B-8E65-08002B2BD119")
    UNUSED_SLOTS(GetGUID, GetSource)
    virtual HRESULT STDMETHODCALLTYPE GetDescription(BSTR* description) = 0;
    UNUSED_SLOTS(GetHelpFile, GetHelpContext)
};

struct IRestrictedErrorInfo : ::IUnknown
{
    WINRT_INTERFACE(IRestrictedErrorInfo, "82BA7092-4C88-427D-A7BC-16DD93FEB67E")
    virtual HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR* description, HRESULT* error, BSTR* restrictedDescription,
                                                      BSTR* capabilitySid) = 0;
    UNUSED_SLOTS(GetReference)
};

// --- Asynchronous operations

struct IAsyncInfo : IInspectable
{
    WINRT_INTERFACE(IAsyncInfo, "00000036-0000-0000-C000-000000000046")
    UNUSED_SLOTS(get_Id)
    virtual HRESULT STDMETHODCALLTYPE get_Status(INT32* status) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ErrorCode(HRESULT* error) = 0;
    UNUSED_SLOTS(Cancel, Close)
};

// Its identifier depends on the operation.
struct ICompletedHandler : ::IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE Invoke(IInspectable* operation, INT32 status) = 0;

protected:
    ~ICompletedHandler() = default;
};

// IAsyncOperationWithProgress of any result and progress: the two below differ in their identifiers only.
struct IOperation : IInspectable
{
    static constexpr const wchar_t* kName = L"IOperation";
    UNUSED_SLOTS(put_Progress, get_Progress)
    virtual HRESULT STDMETHODCALLTYPE put_Completed(ICompletedHandler* handler) = 0;
    UNUSED_SLOTS(get_Completed)
    virtual HRESULT STDMETHODCALLTYPE GetResults(IInspectable** result) = 0;

protected:
    ~IOperation() = default;
};

struct IDeploymentOperation : IOperation
{
    WINRT_INTERFACE(IDeploymentOperation, "5A97AAB7-B6EA-55AC-A5DC-D5B164D94E94")
    static constexpr GUID kHandlerIid = Id("6E1C7129-61E0-5D88-9FD4-F3CE65A05719");
};

struct IStoreOperation : IOperation
{
    WINRT_INTERFACE(IStoreOperation, "42C436CA-51F7-50B2-8FE4-7B754062E6EB")
    static constexpr GUID kHandlerIid = Id("B3BE0C8B-EF1D-56DC-8547-4DA06EA563DF");
};

// --- Collections

struct IStringIterator : IInspectable
{
    WINRT_INTERFACE(IStringIterator, "8C304EBB-6615-50A4-8829-879ECD443236")
    virtual HRESULT STDMETHODCALLTYPE get_Current(HSTRING* current) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32 capacity, HSTRING* items, UINT32* count) = 0;
};

struct IStringIterable : IInspectable
{
    WINRT_INTERFACE(IStringIterable, "E2FCC7C1-3BFC-5A0B-B2B0-72E769D1CB7E")
    virtual HRESULT STDMETHODCALLTYPE First(IStringIterator** iterator) = 0;
};

struct IStringVectorView : IInspectable
{
    WINRT_INTERFACE(IStringVectorView, "2F13C006-A03A-5F69-B090-75A43E33423E")
    virtual HRESULT STDMETHODCALLTYPE GetAt(UINT32 index, HSTRING* item) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Size(UINT32* size) = 0;
    virtual HRESULT STDMETHODCALLTYPE IndexOf(HSTRING item, UINT32* index, boolean* found) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32 start, UINT32 capacity, HSTRING* items, UINT32* count) = 0;
};

struct IPackage;

struct IPackageIterator : IInspectable
{
    WINRT_INTERFACE(IPackageIterator, "0217F069-025C-5EE6-A87F-E782E3B623AE")
    virtual HRESULT STDMETHODCALLTYPE get_Current(IPackage** current) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(boolean* hasCurrent) = 0;
    UNUSED_SLOTS(GetMany)
};

struct IPackageIterable : IInspectable
{
    WINRT_INTERFACE(IPackageIterable, "69AD6AA7-0C49-5F27-A5EB-EF4D59467B6D")
    virtual HRESULT STDMETHODCALLTYPE First(IPackageIterator** iterator) = 0;
};

// --- Packages

struct IPackageId : IInspectable
{
    WINRT_INTERFACE(IPackageId, "1ADB665E-37C7-4790-9980-DD7AE74E8BB2")
    UNUSED_SLOTS(get_Name)
    virtual HRESULT STDMETHODCALLTYPE get_Version(PackageVersion* version) = 0;
    UNUSED_SLOTS(get_Architecture, get_ResourceId, get_Publisher, get_PublisherId)
    virtual HRESULT STDMETHODCALLTYPE get_FullName(HSTRING* name) = 0;
    UNUSED_SLOTS(get_FamilyName)
};

struct IPackageStatus : IInspectable
{
    WINRT_INTERFACE(IPackageStatus, "5FE74F71-A365-4C09-A02D-046D525EA1DA")
    virtual HRESULT STDMETHODCALLTYPE VerifyIsOK(boolean* isOk) = 0;
    UNUSED_SLOTS(get_NotAvailable, get_PackageOffline, get_DataOffline, get_Disabled, get_NeedsRemediation)
    UNUSED_SLOTS(get_LicenseIssue, get_Modified, get_Tampered, get_DependencyIssue, get_Servicing)
    UNUSED_SLOTS(get_DeploymentInProgress)
};

struct IPackage : IInspectable
{
    WINRT_INTERFACE(IPackage, "163C792F-BD75-413C-BF23-B1FE7B95D825")
    virtual HRESULT STDMETHODCALLTYPE get_Id(IPackageId** id) = 0;
    UNUSED_SLOTS(get_InstalledLocation, get_IsFramework, get_Dependencies)
};

struct IPackage3 : IInspectable
{
    WINRT_INTERFACE(IPackage3, "5F738B61-F86A-4917-93D1-F1EE9D3B35D9")
    virtual HRESULT STDMETHODCALLTYPE get_Status(IPackageStatus** status) = 0;
    UNUSED_SLOTS(get_InstalledDate, GetAppListEntriesAsync)
};

struct IDeploymentResult : IInspectable
{
    WINRT_INTERFACE(IDeploymentResult, "2563B9AE-B77D-4C1F-8A7B-20E6AD515EF3")
    virtual HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) = 0;
    UNUSED_SLOTS(get_ActivityId)
    virtual HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* code) = 0;
};

struct IPackageManager : IInspectable
{
    WINRT_INTERFACE(IPackageManager, "9A7D4B65-5E8F-4FC7-A2E5-7F6925CB8B53")
    UNUSED_SLOTS(AddPackageAsync, UpdatePackageAsync, RemovePackageAsync, StagePackageAsync, RegisterPackageAsync)
    virtual HRESULT STDMETHODCALLTYPE FindPackages(IPackageIterable** packages) = 0;
    UNUSED_METHOD(FindPackagesByUserSecurityId, HSTRING, IPackageIterable**)
    UNUSED_SLOTS(FindPackagesByNamePublisher, FindPackagesByUserSecurityIdNamePublisher, FindUsers, SetPackageState)
    UNUSED_SLOTS(FindPackageByPackageFullName, CleanupPackageForUserAsync, FindPackagesByPackageFamilyName)
    UNUSED_SLOTS(FindPackagesByUserSecurityIdPackageFamilyName, FindPackageByUserSecurityIdPackageFullName)
};

struct IPackageManager2 : IInspectable
{
    WINRT_INTERFACE(IPackageManager2, "F7AAD08D-0840-46F2-B5D8-CAD47693A095")
    virtual HRESULT STDMETHODCALLTYPE RemovePackageWithOptionsAsync(HSTRING fullName, UINT32 options,
                                                                    IDeploymentOperation** operation) = 0;
    UNUSED_SLOTS(StagePackageWithOptionsAsync, RegisterPackageByFullNameAsync, FindPackagesWithPackageTypes)
    UNUSED_METHOD(FindPackagesByUserSecurityIdWithPackageTypes, HSTRING, UINT32, IPackageIterable**)
    UNUSED_SLOTS(FindPackagesByNamePublisherWithPackageTypes, FindPackagesByUserSecurityIdNamePublisherWithPackageTypes)
    UNUSED_SLOTS(FindPackagesByPackageFamilyNameWithPackageTypes)
    UNUSED_SLOTS(FindPackagesByUserSecurityIdPackageFamilyNameWithPackageTypes, StageUserDataAsync)
};

// --- Store

struct IInitializeWithWindow : ::IUnknown
{
    WINRT_INTERFACE(IInitializeWithWindow, "3E68D4BD-7135-4D10-8018-9FB6D9F33FA1")
    virtual HRESULT STDMETHODCALLTYPE Initialize(HWND window) = 0;
};

struct IStorePackageUpdateResult : IInspectable
{
    WINRT_INTERFACE(IStorePackageUpdateResult, "E79142ED-61F9-4893-B4FE-CF191603AF7B")
    virtual HRESULT STDMETHODCALLTYPE get_OverallState(INT32* state) = 0;
    UNUSED_SLOTS(get_StorePackageUpdateStatuses)
};

struct IStoreContext : IInspectable
{
    WINRT_INTERFACE(IStoreContext, "AC98B6BE-F4FD-4912-BABD-5035E5E8BCAB")
    UNUSED_SLOTS(get_User, add_OfflineLicensesChanged, remove_OfflineLicensesChanged, GetCustomerPurchaseIdAsync)
    UNUSED_SLOTS(GetCustomerCollectionsIdAsync, GetAppLicenseAsync, GetStoreProductForCurrentAppAsync)
    UNUSED_SLOTS(GetStoreProductsAsync, GetAssociatedStoreProductsAsync, GetAssociatedStoreProductsWithPagingAsync)
    UNUSED_SLOTS(GetUserCollectionAsync, GetUserCollectionWithPagingAsync, ReportConsumableFulfillmentAsync)
    UNUSED_SLOTS(GetConsumableBalanceRemainingAsync, AcquireStoreLicenseForOptionalPackageAsync, RequestPurchaseAsync)
    UNUSED_SLOTS(RequestPurchaseWithPurchasePropertiesAsync, GetAppAndOptionalStorePackageUpdatesAsync)
    UNUSED_SLOTS(RequestDownloadStorePackageUpdatesAsync, RequestDownloadAndInstallStorePackageUpdatesAsync)
    UNUSED_SLOTS(RequestDownloadAndInstallStorePackagesAsync)
};

struct IStoreContext3 : IInspectable
{
    WINRT_INTERFACE(IStoreContext3, "E26226CA-1A01-4730-85A6-ECC896E4AE38")
    UNUSED_METHOD(get_CanSilentlyDownloadStorePackageUpdates, boolean*)
    UNUSED_SLOTS(TrySilentDownloadStorePackageUpdatesAsync, TrySilentDownloadAndInstallStorePackageUpdatesAsync)
    UNUSED_SLOTS(CanAcquireStoreLicenseForOptionalPackageAsync, CanAcquireStoreLicenseAsync)
    UNUSED_SLOTS(GetStoreProductsWithOptionsAsync, GetAssociatedStoreQueueItemsAsync, GetStoreQueueItemsAsync)
    UNUSED_SLOTS(RequestDownloadAndInstallStorePackagesWithInstallOptionsAsync)
    virtual HRESULT STDMETHODCALLTYPE DownloadAndInstallStorePackagesAsync(IStringIterable* storeIds,
                                                                           IStoreOperation** operation) = 0;
    UNUSED_SLOTS(RequestUninstallStorePackageAsync, RequestUninstallStorePackageByStoreIdAsync)
    UNUSED_SLOTS(UninstallStorePackageAsync, UninstallStorePackageByStoreIdAsync)
};

struct IStoreContextStatics : IInspectable
{
    WINRT_INTERFACE(IStoreContextStatics, "9C06EE5F-15C0-4E72-9330-D6191CEBD19C")
    virtual HRESULT STDMETHODCALLTYPE GetDefault(IStoreContext** context) = 0;
    UNUSED_SLOTS(GetForUser)
};
}  // namespace winrt_abi
