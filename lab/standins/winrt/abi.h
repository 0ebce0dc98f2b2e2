// The Windows Runtime interfaces as the component offers them: methods in the order of their slots. Slots that nobody
// is expected to call keep their place, note the call and fail, so that a caller's wrong slot shows.
#pragma once
#include <windows.h>
#include <oaidl.h>
#include <unknwn.h>
#include <winstring.h>

#include "record.h"

#define UNUSED_SLOT(name)                         \
    virtual HRESULT STDMETHODCALLTYPE name()      \
    {                                             \
        return lab::UnusedSlot(kName, L"" #name); \
    }

// Lives and dies through Release alone.
#define COM_INTERFACE(type) \
protected:                  \
    ~type() = default;      \
                            \
public:                     \
    static constexpr const wchar_t* kName = L"" #type;

namespace lab::abi
{
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

struct IInspectable : IUnknown
{
    COM_INTERFACE(IInspectable)
    static constexpr GUID kIid = {0xAF86E2E0, 0xB12D, 0x4C6A, {0x9C, 0x5A, 0xD7, 0xAA, 0x65, 0x10, 0x1E, 0x90}};
    virtual HRESULT STDMETHODCALLTYPE GetIids(ULONG* count, GUID** iids) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HSTRING* name) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetTrustLevel(INT32* level) = 0;
};

struct IAgileObject : IUnknown
{
    COM_INTERFACE(IAgileObject)
    static constexpr GUID kIid = {0x94EA2B94, 0xE9CC, 0x49E0, {0xC0, 0xFF, 0xEE, 0x64, 0xCA, 0x8F, 0x5B, 0x90}};
};

struct IActivationFactory : IInspectable
{
    COM_INTERFACE(IActivationFactory)
    static constexpr GUID kIid = {0x00000035, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    virtual HRESULT STDMETHODCALLTYPE ActivateInstance(IInspectable** instance) = 0;
};

// Errors that carry a text.

struct IRestrictedErrorInfo : IUnknown
{
    COM_INTERFACE(IRestrictedErrorInfo)
    static constexpr GUID kIid = {0x82BA7092, 0x4C88, 0x427D, {0xA7, 0xBC, 0x16, 0xDD, 0x93, 0xFE, 0xB6, 0x7E}};
    virtual HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR* description, HRESULT* error, BSTR* restrictedDescription,
                                                      BSTR* capabilitySid) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetReference(BSTR* reference) = 0;
};

// Asynchronous operations.

struct IAsyncInfo : IInspectable
{
    COM_INTERFACE(IAsyncInfo)
    static constexpr GUID kIid = {0x00000036, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    virtual HRESULT STDMETHODCALLTYPE get_Id(UINT32* id) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Status(INT32* status) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ErrorCode(HRESULT* error) = 0;
    UNUSED_SLOT(Cancel)
    UNUSED_SLOT(Close)
};

struct ICompletedHandler : IUnknown
{
    COM_INTERFACE(ICompletedHandler)
    virtual HRESULT STDMETHODCALLTYPE Invoke(IInspectable* operation, INT32 status) = 0;
};

// IAsyncOperationWithProgress of any result and progress: the two instances below differ in their identifiers only.
struct IOperation : IInspectable
{
    COM_INTERFACE(IOperation)
    UNUSED_SLOT(put_Progress)
    UNUSED_SLOT(get_Progress)
    virtual HRESULT STDMETHODCALLTYPE put_Completed(ICompletedHandler* handler) = 0;
    UNUSED_SLOT(get_Completed)
    virtual HRESULT STDMETHODCALLTYPE GetResults(IInspectable** result) = 0;
};

struct IDeploymentOperation : IOperation
{
    COM_INTERFACE(IDeploymentOperation)
    static constexpr GUID kIid = {0x5A97AAB7, 0xB6EA, 0x55AC, {0xA5, 0xDC, 0xD5, 0xB1, 0x64, 0xD9, 0x4E, 0x94}};
    static constexpr GUID kHandlerIid = {0x6E1C7129, 0x61E0, 0x5D88, {0x9F, 0xD4, 0xF3, 0xCE, 0x65, 0xA0, 0x57, 0x19}};
};

struct IStoreOperation : IOperation
{
    COM_INTERFACE(IStoreOperation)
    static constexpr GUID kIid = {0x42C436CA, 0x51F7, 0x50B2, {0x8F, 0xE4, 0x7B, 0x75, 0x40, 0x62, 0xE6, 0xEB}};
    static constexpr GUID kHandlerIid = {0xB3BE0C8B, 0xEF1D, 0x56DC, {0x85, 0x47, 0x4D, 0xA0, 0x6E, 0xA5, 0x63, 0xDF}};
};

// Collections.

struct IStringIterator : IInspectable
{
    COM_INTERFACE(IStringIterator)
    static constexpr GUID kIid = {0x8C304EBB, 0x6615, 0x50A4, {0x88, 0x29, 0x87, 0x9E, 0xCD, 0x44, 0x32, 0x36}};
    virtual HRESULT STDMETHODCALLTYPE get_Current(HSTRING* current) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32 capacity, HSTRING* items, UINT32* count) = 0;
};

struct IStringIterable : IInspectable
{
    COM_INTERFACE(IStringIterable)
    static constexpr GUID kIid = {0xE2FCC7C1, 0x3BFC, 0x5A0B, {0xB2, 0xB0, 0x72, 0xE7, 0x69, 0xD1, 0xCB, 0x7E}};
    virtual HRESULT STDMETHODCALLTYPE First(IStringIterator** iterator) = 0;
};

struct IPackage;

struct IPackageIterator : IInspectable
{
    COM_INTERFACE(IPackageIterator)
    static constexpr GUID kIid = {0x0217F069, 0x025C, 0x5EE6, {0xA8, 0x7F, 0xE7, 0x82, 0xE3, 0xB6, 0x23, 0xAE}};
    virtual HRESULT STDMETHODCALLTYPE get_Current(IPackage** current) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(boolean* hasCurrent) = 0;
    UNUSED_SLOT(GetMany)
};

struct IPackageIterable : IInspectable
{
    COM_INTERFACE(IPackageIterable)
    static constexpr GUID kIid = {0x69AD6AA7, 0x0C49, 0x5F27, {0xA5, 0xEB, 0xEF, 0x4D, 0x59, 0x46, 0x7B, 0x6D}};
    virtual HRESULT STDMETHODCALLTYPE First(IPackageIterator** iterator) = 0;
};

// Packages.

struct IPackageId : IInspectable
{
    COM_INTERFACE(IPackageId)
    static constexpr GUID kIid = {0x1ADB665E, 0x37C7, 0x4790, {0x99, 0x80, 0xDD, 0x7A, 0xE7, 0x4E, 0x8B, 0xB2}};
    UNUSED_SLOT(get_Name)
    virtual HRESULT STDMETHODCALLTYPE get_Version(PackageVersion* version) = 0;
    UNUSED_SLOT(get_Architecture)
    UNUSED_SLOT(get_ResourceId)
    UNUSED_SLOT(get_Publisher)
    UNUSED_SLOT(get_PublisherId)
    virtual HRESULT STDMETHODCALLTYPE get_FullName(HSTRING* name) = 0;
    UNUSED_SLOT(get_FamilyName)
};

struct IPackageStatus : IInspectable
{
    COM_INTERFACE(IPackageStatus)
    static constexpr GUID kIid = {0x5FE74F71, 0xA365, 0x4C09, {0xA0, 0x2D, 0x04, 0x6D, 0x52, 0x5E, 0xA1, 0xDA}};
    virtual HRESULT STDMETHODCALLTYPE VerifyIsOK(boolean* isOk) = 0;
    UNUSED_SLOT(get_NotAvailable)
    UNUSED_SLOT(get_PackageOffline)
    UNUSED_SLOT(get_DataOffline)
    UNUSED_SLOT(get_Disabled)
    UNUSED_SLOT(get_NeedsRemediation)
    UNUSED_SLOT(get_LicenseIssue)
    UNUSED_SLOT(get_Modified)
    UNUSED_SLOT(get_Tampered)
    UNUSED_SLOT(get_DependencyIssue)
    UNUSED_SLOT(get_Servicing)
    UNUSED_SLOT(get_DeploymentInProgress)
};

struct IPackage : IInspectable
{
    COM_INTERFACE(IPackage)
    static constexpr GUID kIid = {0x163C792F, 0xBD75, 0x413C, {0xBF, 0x23, 0xB1, 0xFE, 0x7B, 0x95, 0xD8, 0x25}};
    virtual HRESULT STDMETHODCALLTYPE get_Id(IPackageId** id) = 0;
    UNUSED_SLOT(get_InstalledLocation)
    UNUSED_SLOT(get_IsFramework)
    UNUSED_SLOT(get_Dependencies)
};

struct IPackage3 : IInspectable
{
    COM_INTERFACE(IPackage3)
    static constexpr GUID kIid = {0x5F738B61, 0xF86A, 0x4917, {0x93, 0xD1, 0xF1, 0xEE, 0x9D, 0x3B, 0x35, 0xD9}};
    virtual HRESULT STDMETHODCALLTYPE get_Status(IPackageStatus** status) = 0;
    UNUSED_SLOT(get_InstalledDate)
    UNUSED_SLOT(GetAppListEntriesAsync)
};

struct IDeploymentResult : IInspectable
{
    COM_INTERFACE(IDeploymentResult)
    static constexpr GUID kIid = {0x2563B9AE, 0xB77D, 0x4C1F, {0x8A, 0x7B, 0x20, 0xE6, 0xAD, 0x51, 0x5E, 0xF3}};
    virtual HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) = 0;
    UNUSED_SLOT(get_ActivityId)
    virtual HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* code) = 0;
};

struct IPackageManager : IInspectable
{
    COM_INTERFACE(IPackageManager)
    static constexpr GUID kIid = {0x9A7D4B65, 0x5E8F, 0x4FC7, {0xA2, 0xE5, 0x7F, 0x69, 0x25, 0xCB, 0x8B, 0x53}};
    UNUSED_SLOT(AddPackageAsync)
    UNUSED_SLOT(UpdatePackageAsync)
    UNUSED_SLOT(RemovePackageAsync)
    UNUSED_SLOT(StagePackageAsync)
    UNUSED_SLOT(RegisterPackageAsync)
    virtual HRESULT STDMETHODCALLTYPE FindPackages(IPackageIterable** packages) = 0;
    UNUSED_SLOT(FindPackagesByUserSecurityId)
    UNUSED_SLOT(FindPackagesByNamePublisher)
    UNUSED_SLOT(FindPackagesByUserSecurityIdNamePublisher)
    UNUSED_SLOT(FindUsers)
    UNUSED_SLOT(SetPackageState)
    UNUSED_SLOT(FindPackageByPackageFullName)
    UNUSED_SLOT(CleanupPackageForUserAsync)
    UNUSED_SLOT(FindPackagesByPackageFamilyName)
    UNUSED_SLOT(FindPackagesByUserSecurityIdPackageFamilyName)
    UNUSED_SLOT(FindPackageByUserSecurityIdPackageFullName)
};

struct IPackageManager2 : IInspectable
{
    COM_INTERFACE(IPackageManager2)
    static constexpr GUID kIid = {0xF7AAD08D, 0x0840, 0x46F2, {0xB5, 0xD8, 0xCA, 0xD4, 0x76, 0x93, 0xA0, 0x95}};
    virtual HRESULT STDMETHODCALLTYPE RemovePackageWithOptionsAsync(HSTRING fullName, UINT32 options,
                                                                    IDeploymentOperation** operation) = 0;
    UNUSED_SLOT(StagePackageWithOptionsAsync)
    UNUSED_SLOT(RegisterPackageByFullNameAsync)
    UNUSED_SLOT(FindPackagesWithPackageTypes)
    UNUSED_SLOT(FindPackagesByUserSecurityIdWithPackageTypes)
    UNUSED_SLOT(FindPackagesByNamePublisherWithPackageTypes)
    UNUSED_SLOT(FindPackagesByUserSecurityIdNamePublisherWithPackageTypes)
    UNUSED_SLOT(FindPackagesByPackageFamilyNameWithPackageTypes)
    UNUSED_SLOT(FindPackagesByUserSecurityIdPackageFamilyNameWithPackageTypes)
    UNUSED_SLOT(StageUserDataAsync)
};

// Store.

struct IInitializeWithWindow : IUnknown
{
    COM_INTERFACE(IInitializeWithWindow)
    static constexpr GUID kIid = {0x3E68D4BD, 0x7135, 0x4D10, {0x80, 0x18, 0x9F, 0xB6, 0xD9, 0xF3, 0x3F, 0xA1}};
    virtual HRESULT STDMETHODCALLTYPE Initialize(HWND window) = 0;
};

struct IStorePackageUpdateResult : IInspectable
{
    COM_INTERFACE(IStorePackageUpdateResult)
    static constexpr GUID kIid = {0xE79142ED, 0x61F9, 0x4893, {0xB4, 0xFE, 0xCF, 0x19, 0x16, 0x03, 0xAF, 0x7B}};
    virtual HRESULT STDMETHODCALLTYPE get_OverallState(INT32* state) = 0;
    UNUSED_SLOT(get_StorePackageUpdateStatuses)
};

struct IStoreContext : IInspectable
{
    COM_INTERFACE(IStoreContext)
    static constexpr GUID kIid = {0xAC98B6BE, 0xF4FD, 0x4912, {0xBA, 0xBD, 0x50, 0x35, 0xE5, 0xE8, 0xBC, 0xAB}};
    UNUSED_SLOT(get_User)
    UNUSED_SLOT(add_OfflineLicensesChanged)
    UNUSED_SLOT(remove_OfflineLicensesChanged)
    UNUSED_SLOT(GetCustomerPurchaseIdAsync)
    UNUSED_SLOT(GetCustomerCollectionsIdAsync)
    UNUSED_SLOT(GetAppLicenseAsync)
    UNUSED_SLOT(GetStoreProductForCurrentAppAsync)
    UNUSED_SLOT(GetStoreProductsAsync)
    UNUSED_SLOT(GetAssociatedStoreProductsAsync)
    UNUSED_SLOT(GetAssociatedStoreProductsWithPagingAsync)
    UNUSED_SLOT(GetUserCollectionAsync)
    UNUSED_SLOT(GetUserCollectionWithPagingAsync)
    UNUSED_SLOT(ReportConsumableFulfillmentAsync)
    UNUSED_SLOT(GetConsumableBalanceRemainingAsync)
    UNUSED_SLOT(AcquireStoreLicenseForOptionalPackageAsync)
    UNUSED_SLOT(RequestPurchaseAsync)
    UNUSED_SLOT(RequestPurchaseWithPurchasePropertiesAsync)
    UNUSED_SLOT(GetAppAndOptionalStorePackageUpdatesAsync)
    UNUSED_SLOT(RequestDownloadStorePackageUpdatesAsync)
    UNUSED_SLOT(RequestDownloadAndInstallStorePackageUpdatesAsync)
    UNUSED_SLOT(RequestDownloadAndInstallStorePackagesAsync)
};

struct IStoreContext3 : IInspectable
{
    COM_INTERFACE(IStoreContext3)
    static constexpr GUID kIid = {0xE26226CA, 0x1A01, 0x4730, {0x85, 0xA6, 0xEC, 0xC8, 0x96, 0xE4, 0xAE, 0x38}};
    UNUSED_SLOT(get_CanSilentlyDownloadStorePackageUpdates)
    UNUSED_SLOT(TrySilentDownloadStorePackageUpdatesAsync)
    UNUSED_SLOT(TrySilentDownloadAndInstallStorePackageUpdatesAsync)
    UNUSED_SLOT(CanAcquireStoreLicenseForOptionalPackageAsync)
    UNUSED_SLOT(CanAcquireStoreLicenseAsync)
    UNUSED_SLOT(GetStoreProductsWithOptionsAsync)
    UNUSED_SLOT(GetAssociatedStoreQueueItemsAsync)
    UNUSED_SLOT(GetStoreQueueItemsAsync)
    UNUSED_SLOT(RequestDownloadAndInstallStorePackagesWithInstallOptionsAsync)
    virtual HRESULT STDMETHODCALLTYPE DownloadAndInstallStorePackagesAsync(IStringIterable* storeIds,
                                                                           IStoreOperation** operation) = 0;
    UNUSED_SLOT(RequestUninstallStorePackageAsync)
    UNUSED_SLOT(RequestUninstallStorePackageByStoreIdAsync)
    UNUSED_SLOT(UninstallStorePackageAsync)
    UNUSED_SLOT(UninstallStorePackageByStoreIdAsync)
};

struct IStoreContextStatics : IInspectable
{
    COM_INTERFACE(IStoreContextStatics)
    static constexpr GUID kIid = {0x9C06EE5F, 0x15C0, 0x4E72, {0x93, 0x30, 0xD6, 0x19, 0x1C, 0xEB, 0xD1, 0x9C}};
    virtual HRESULT STDMETHODCALLTYPE GetDefault(IStoreContext** context) = 0;
    UNUSED_SLOT(GetForUser)
};
}  // namespace lab::abi
