// Binary interfaces of the Windows Runtime classes in use. The toolchain's headers lack them or declare a boolean too
// wide.
//
// Methods are listed in vtable order up to the last one that is called.
#pragma once

#include <compare>
#include <cstdint>

#include <windows.h>
#include <unknwn.h>

namespace repair::abi
{
struct HStringTag;
using HString = HStringTag*;  // null is the empty text
using Boolean = unsigned char;

enum class AsyncStatus : std::int32_t
{
    kStarted = 0,
    kCompleted = 1,
    kCanceled = 2,
};

struct IInspectable : ::IUnknown
{
    static constexpr GUID kIid = {0xAF86E2E0, 0xB12D, 0x4C6A, {0x9C, 0x5A, 0xD7, 0xAA, 0x65, 0x10, 0x1E, 0x90}};
    virtual HRESULT STDMETHODCALLTYPE GetIids(ULONG* count, GUID** iids) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HString* name) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetTrustLevel(std::int32_t* level) = 0;
};

struct IActivationFactory : IInspectable
{
    static constexpr GUID kIid = {0x00000035, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
    virtual HRESULT STDMETHODCALLTYPE ActivateInstance(IInspectable** instance) = 0;
};

struct IAsyncInfo : IInspectable
{
    static constexpr GUID kIid = {0x00000036, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
    virtual HRESULT STDMETHODCALLTYPE get_Id(UINT32* id) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Status(AsyncStatus* status) = 0;
};

struct IRestrictedErrorInfo : ::IUnknown
{
    static constexpr GUID kIid = {0x82BA7092, 0x4C88, 0x427D, {0xA7, 0xBC, 0x16, 0xDD, 0x93, 0xFE, 0xB6, 0x7E}};
    virtual HRESULT STDMETHODCALLTYPE GetErrorDetails(BSTR* description, HRESULT* error, BSTR* restrictedDescription,
                                                      BSTR* capabilitySid) = 0;
};

// Marks an object that every thread may call.
inline constexpr GUID kIidAgileObject = {0x94EA2B94, 0xE9CC, 0x49E0, {0xC0, 0xFF, 0xEE, 0x64, 0xCA, 0x8F, 0x5B, 0x90}};

inline constexpr HRESULT kErrorBounds = static_cast<HRESULT>(0x8000000B);  // E_BOUNDS: no element there

// --- Collections -----------------------------------------------------------------------------------------------------

template <typename T>
struct IteratorMethods : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_Current(T* current) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(Boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(Boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32 capacity, T* items, UINT32* actual) = 0;
};

struct IStringIterator : IteratorMethods<HString>
{
    static constexpr GUID kIid = {0x8C304EBB, 0x6615, 0x50A4, {0x88, 0x29, 0x87, 0x9E, 0xCD, 0x44, 0x32, 0x36}};
};

struct IStringIterable : IInspectable
{
    static constexpr GUID kIid = {0xE2FCC7C1, 0x3BFC, 0x5A0B, {0xB2, 0xB0, 0x72, 0xE7, 0x69, 0xD1, 0xCB, 0x7E}};
    virtual HRESULT STDMETHODCALLTYPE First(IStringIterator** iterator) = 0;
};

struct IStringVectorView : IInspectable
{
    static constexpr GUID kIid = {0x2F13C006, 0xA03A, 0x5F69, {0xB0, 0x90, 0x75, 0xA4, 0x3E, 0x33, 0x42, 0x3E}};
    virtual HRESULT STDMETHODCALLTYPE GetAt(UINT32 index, HString* item) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Size(UINT32* size) = 0;
    virtual HRESULT STDMETHODCALLTYPE IndexOf(HString item, UINT32* index, Boolean* found) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32 start, UINT32 capacity, HString* items, UINT32* actual) = 0;
};

struct IPackage;

struct IPackageIterator : IteratorMethods<IPackage*>
{
    static constexpr GUID kIid = {0x0217F069, 0x025C, 0x5EE6, {0xA8, 0x7F, 0xE7, 0x82, 0xE3, 0xB6, 0x23, 0xAE}};
};

struct IPackageIterable : IInspectable
{
    static constexpr GUID kIid = {0x69AD6AA7, 0x0C49, 0x5F27, {0xA5, 0xEB, 0xEF, 0x4D, 0x59, 0x46, 0x7B, 0x6D}};
    virtual HRESULT STDMETHODCALLTYPE First(IPackageIterator** iterator) = 0;
};

// --- Asynchronous operations -----------------------------------------------------------------------------------------

// An operation with progress whose result is a `Result`. `Identity` names the instantiation (see below).
template <typename Identity>
struct IAsyncOperation;

template <typename Identity>
struct ICompletedHandler : ::IUnknown
{
    static constexpr GUID kIid = Identity::kHandlerIid;
    virtual HRESULT STDMETHODCALLTYPE Invoke(IAsyncOperation<Identity>* operation, AsyncStatus status) = 0;
};

template <typename Identity>
struct IAsyncOperation : IInspectable
{
    static constexpr GUID kIid = Identity::kOperationIid;
    using Result = typename Identity::Result;
    virtual HRESULT STDMETHODCALLTYPE put_Progress(::IUnknown* handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Progress(::IUnknown** handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_Completed(ICompletedHandler<Identity>* handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Completed(ICompletedHandler<Identity>** handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResults(Result** result) = 0;
};

// --- Windows.ApplicationModel ----------------------------------------------------------------------------------------

struct PackageVersion
{
    std::uint16_t Major = 0;
    std::uint16_t Minor = 0;
    std::uint16_t Build = 0;
    std::uint16_t Revision = 0;
    // By Major, then Minor, and so on. clang-tidy sees the 0 of the comparison that the compiler makes.
    auto operator<=>(const PackageVersion&) const = default;  // NOLINT(modernize-use-nullptr)
};
static_assert(sizeof(PackageVersion) == 8);

struct IPackageId : IInspectable
{
    static constexpr GUID kIid = {0x1ADB665E, 0x37C7, 0x4790, {0x99, 0x80, 0xDD, 0x7A, 0xE7, 0x4E, 0x8B, 0xB2}};
    virtual HRESULT STDMETHODCALLTYPE get_Name(HString* name) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Version(PackageVersion* version) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Architecture(std::int32_t* architecture) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ResourceId(HString* id) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Publisher(HString* publisher) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_PublisherId(HString* id) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_FullName(HString* name) = 0;
};

struct IPackage : IInspectable
{
    static constexpr GUID kIid = {0x163C792F, 0xBD75, 0x413C, {0xBF, 0x23, 0xB1, 0xFE, 0x7B, 0x95, 0xD8, 0x25}};
    virtual HRESULT STDMETHODCALLTYPE get_Id(IPackageId** id) = 0;
};

struct IPackageStatus : IInspectable
{
    static constexpr GUID kIid = {0x5FE74F71, 0xA365, 0x4C09, {0xA0, 0x2D, 0x04, 0x6D, 0x52, 0x5E, 0xA1, 0xDA}};
    virtual HRESULT STDMETHODCALLTYPE VerifyIsOK(Boolean* isOk) = 0;
};

struct IPackage3 : IInspectable
{
    static constexpr GUID kIid = {0x5F738B61, 0xF86A, 0x4917, {0x93, 0xD1, 0xF1, 0xEE, 0x9D, 0x3B, 0x35, 0xD9}};
    virtual HRESULT STDMETHODCALLTYPE get_Status(IPackageStatus** status) = 0;
};

// --- Windows.Management.Deployment -----------------------------------------------------------------------------------

inline constexpr wchar_t kPackageManagerClass[] = L"Windows.Management.Deployment.PackageManager";
inline constexpr UINT32 kRemoveForAllUsers = 0x80000;

struct IDeploymentResult : IInspectable
{
    static constexpr GUID kIid = {0x2563B9AE, 0xB77D, 0x4C1F, {0x8A, 0x7B, 0x20, 0xE6, 0xAD, 0x51, 0x5E, 0xF3}};
    virtual HRESULT STDMETHODCALLTYPE get_ErrorText(HString* text) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ActivityId(GUID* id) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* code) = 0;
};

struct Deployment
{
    using Result = IDeploymentResult;
    static constexpr GUID kOperationIid = {
        0x5A97AAB7, 0xB6EA, 0x55AC, {0xA5, 0xDC, 0xD5, 0xB1, 0x64, 0xD9, 0x4E, 0x94}};
    static constexpr GUID kHandlerIid = {0x6E1C7129, 0x61E0, 0x5D88, {0x9F, 0xD4, 0xF3, 0xCE, 0x65, 0xA0, 0x57, 0x19}};
};

// Slots 6 to 10 add, update, remove, stage and register packages; the form of FindPackages without arguments is
// slot 11.
struct IPackageManager : IInspectable
{
    static constexpr GUID kIid = {0x9A7D4B65, 0x5E8F, 0x4FC7, {0xA2, 0xE5, 0x7F, 0x69, 0x25, 0xCB, 0x8B, 0x53}};
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot6() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot7() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot8() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot9() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot10() = 0;
    virtual HRESULT STDMETHODCALLTYPE FindPackages(IPackageIterable** packages) = 0;
};

struct IPackageManager2 : IInspectable
{
    static constexpr GUID kIid = {0xF7AAD08D, 0x0840, 0x46F2, {0xB5, 0xD8, 0xCA, 0xD4, 0x76, 0x93, 0xA0, 0x95}};
    virtual HRESULT STDMETHODCALLTYPE RemovePackageWithOptionsAsync(HString packageFullName, UINT32 removalOptions,
                                                                    IAsyncOperation<Deployment>** operation) = 0;
};

// --- Windows.Services.Store ------------------------------------------------------------------------------------------

inline constexpr wchar_t kStoreContextClass[] = L"Windows.Services.Store.StoreContext";

enum class StorePackageUpdateState : std::int32_t
{
    kPending = 0,
    kCompleted = 3,  // the only success
};

struct IStorePackageUpdateResult : IInspectable
{
    static constexpr GUID kIid = {0xE79142ED, 0x61F9, 0x4893, {0xB4, 0xFE, 0xCF, 0x19, 0x16, 0x03, 0xAF, 0x7B}};
    virtual HRESULT STDMETHODCALLTYPE get_OverallState(StorePackageUpdateState* state) = 0;
};

struct StoreUpdate
{
    using Result = IStorePackageUpdateResult;
    static constexpr GUID kOperationIid = {
        0x42C436CA, 0x51F7, 0x50B2, {0x8F, 0xE4, 0x7B, 0x75, 0x40, 0x62, 0xE6, 0xEB}};
    static constexpr GUID kHandlerIid = {0xB3BE0C8B, 0xEF1D, 0x56DC, {0x85, 0x47, 0x4D, 0xA0, 0x6E, 0xA5, 0x63, 0xDF}};
};

// The context's default interface; none of its methods is called.
struct IStoreContext : IInspectable
{
    static constexpr GUID kIid = {0xAC98B6BE, 0xF4FD, 0x4912, {0xBA, 0xBD, 0x50, 0x35, 0xE5, 0xE8, 0xBC, 0xAB}};
};

struct IStoreContextStatics : IInspectable
{
    static constexpr GUID kIid = {0x9C06EE5F, 0x15C0, 0x4E72, {0x93, 0x30, 0xD6, 0x19, 0x1C, 0xEB, 0xD1, 0x9C}};
    virtual HRESULT STDMETHODCALLTYPE GetDefault(IStoreContext** context) = 0;
};

// Since Windows 10 1803. Slot 14 is the neighbour that asks the user first; the form that only takes the list is
// slot 15.
struct IStoreContext3 : IInspectable
{
    static constexpr GUID kIid = {0xE26226CA, 0x1A01, 0x4730, {0x85, 0xA6, 0xEC, 0xC8, 0x96, 0xE4, 0xAE, 0x38}};
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot6() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot7() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot8() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot9() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot10() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot11() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot12() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot13() = 0;
    virtual HRESULT STDMETHODCALLTYPE UnusedSlot14() = 0;
    virtual HRESULT STDMETHODCALLTYPE
    DownloadAndInstallStorePackagesAsync(IStringIterable* storeIds, IAsyncOperation<StoreUpdate>** operation) = 0;
};

// Classic COM: ties an object that may show something to a window of a desktop program.
struct IInitializeWithWindow : ::IUnknown
{
    static constexpr GUID kIid = {0x3E68D4BD, 0x7135, 0x4D10, {0x80, 0x18, 0x9F, 0xB6, 0xD9, 0xF3, 0x3F, 0xA1}};
    virtual HRESULT STDMETHODCALLTYPE Initialize(HWND window) = 0;
};
}  // namespace repair::abi
