// Binary interfaces of the Windows Runtime as a component sees them, written down a second time: what the product
// declares is held against these, so a wrong id, slot or width of a parameter shows.
#pragma once

#include <windows.h>

#include <unknwn.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace repair::component
{
consteval GUID Id(const char (&text)[37])  // "00000000-0000-0000-0000-000000000000"
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

using String = void*;  // HSTRING
using Bool = unsigned char;

inline constexpr GUID kAgileObject = Id("94EA2B94-E9CC-49E0-C0FF-EE64CA8F5B90");
inline constexpr GUID kInspectable = Id("AF86E2E0-B12D-4C6A-9C5A-D7AA65101E90");

struct Inspectable : ::IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE GetIids(ULONG*, GUID**) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeClassName(String*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetTrustLevel(std::int32_t*) { return E_NOTIMPL; }
};

// Methods that nobody calls, so that the next one has its number. A call is an error of the test.
template <int count>
struct WithUnused : WithUnused<count - 1>
{
    using WithUnused<count - 1>::Unused;
    virtual HRESULT STDMETHODCALLTYPE Unused(std::integral_constant<int, count>)
    {
        ADD_FAILURE() << "slot " << 5 + count << " was called";
        return E_NOTIMPL;
    }
};
template <>
struct WithUnused<0> : Inspectable
{
    void Unused() {}
};

struct ActivationFactory : Inspectable
{
    static constexpr GUID kId = Id("00000035-0000-0000-C000-000000000046");
    virtual HRESULT STDMETHODCALLTYPE ActivateInstance(Inspectable**) = 0;
};

// --- Packages
struct Version
{
    std::uint16_t major, minor, build, revision;
};

struct PackageId : WithUnused<1>
{
    static constexpr GUID kId = Id("1ADB665E-37C7-4790-9980-DD7AE74E8BB2");
    virtual HRESULT STDMETHODCALLTYPE GetVersion(Version*) = 0;  // slot 7
    virtual HRESULT STDMETHODCALLTYPE GetArchitecture(std::int32_t*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetResourceId(String*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetPublisher(String*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetPublisherId(String*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetFullName(String*) = 0;  // slot 12
};
struct PackageStatus : Inspectable
{
    static constexpr GUID kId = Id("5FE74F71-A365-4C09-A02D-046D525EA1DA");
    virtual HRESULT STDMETHODCALLTYPE VerifyIsOK(Bool*) = 0;
};
struct Package : Inspectable
{
    static constexpr GUID kId = Id("163C792F-BD75-413C-BF23-B1FE7B95D825");
    virtual HRESULT STDMETHODCALLTYPE GetId(PackageId**) = 0;
};
struct Package3 : Inspectable
{
    static constexpr GUID kId = Id("5F738B61-F86A-4917-93D1-F1EE9D3B35D9");
    virtual HRESULT STDMETHODCALLTYPE GetStatus(PackageStatus**) = 0;
};
struct PackageIterator : Inspectable
{
    static constexpr GUID kId = Id("0217F069-025C-5EE6-A87F-E782E3B623AE");
    virtual HRESULT STDMETHODCALLTYPE GetCurrent(Package**) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHasCurrent(Bool*) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(Bool*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32, Package**, UINT32*) { return E_NOTIMPL; }
};
struct PackageIterable : Inspectable
{
    static constexpr GUID kId = Id("69AD6AA7-0C49-5F27-A5EB-EF4D59467B6D");
    virtual HRESULT STDMETHODCALLTYPE First(PackageIterator**) = 0;
};

// --- Texts that the product hands out
struct StringIterator : Inspectable
{
    static constexpr GUID kId = Id("8C304EBB-6615-50A4-8829-879ECD443236");
    virtual HRESULT STDMETHODCALLTYPE GetCurrent(String*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHasCurrent(Bool*) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(Bool*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32, String*, UINT32*) = 0;
};
struct StringIterable : Inspectable
{
    static constexpr GUID kId = Id("E2FCC7C1-3BFC-5A0B-B2B0-72E769D1CB7E");
    virtual HRESULT STDMETHODCALLTYPE First(StringIterator**) = 0;
};
struct StringVectorView : Inspectable
{
    static constexpr GUID kId = Id("2F13C006-A03A-5F69-B090-75A43E33423E");
    virtual HRESULT STDMETHODCALLTYPE GetAt(UINT32, String*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetSize(UINT32*) = 0;
    virtual HRESULT STDMETHODCALLTYPE IndexOf(String, UINT32*, Bool*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32, UINT32, String*, UINT32*) = 0;
};

// --- Asynchronous operations
struct AsyncInfo : Inspectable
{
    static constexpr GUID kId = Id("00000036-0000-0000-C000-000000000046");
    virtual HRESULT STDMETHODCALLTYPE GetOperationId(UINT32*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetStatus(std::int32_t*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetErrorCode(HRESULT*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE Cancel() { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE Close() { return E_NOTIMPL; }
};
struct Completed : ::IUnknown  // the handler, whose id depends on the operation
{
    virtual HRESULT STDMETHODCALLTYPE Invoke(Inspectable* operation, std::int32_t status) = 0;
};
template <typename Kind>
struct AsyncOperation : WithUnused<2>
{
    static constexpr GUID kId = Kind::kOperationId;
    virtual HRESULT STDMETHODCALLTYPE PutCompleted(Completed*) = 0;  // slot 8
    virtual HRESULT STDMETHODCALLTYPE GetCompleted(Completed**) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetResults(typename Kind::Result**) = 0;
};

struct DeploymentResult : Inspectable
{
    static constexpr GUID kId = Id("2563B9AE-B77D-4C1F-8A7B-20E6AD515EF3");
    virtual HRESULT STDMETHODCALLTYPE GetErrorText(String*) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetActivityId(GUID*) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE GetExtendedErrorCode(HRESULT*) = 0;
};
struct DeploymentKind
{
    using Result = DeploymentResult;
    static constexpr GUID kOperationId = Id("5A97AAB7-B6EA-55AC-A5DC-D5B164D94E94");
    static constexpr GUID kHandlerId = Id("6E1C7129-61E0-5D88-9FD4-F3CE65A05719");
};
struct UpdateResult : Inspectable
{
    static constexpr GUID kId = Id("E79142ED-61F9-4893-B4FE-CF191603AF7B");
    virtual HRESULT STDMETHODCALLTYPE GetOverallState(std::int32_t*) = 0;
};
struct UpdateKind
{
    using Result = UpdateResult;
    static constexpr GUID kOperationId = Id("42C436CA-51F7-50B2-8FE4-7B754062E6EB");
    static constexpr GUID kHandlerId = Id("B3BE0C8B-EF1D-56DC-8547-4DA06EA563DF");
};

// --- The two classes
struct PackageManager : WithUnused<5>
{
    static constexpr GUID kId = Id("9A7D4B65-5E8F-4FC7-A2E5-7F6925CB8B53");
    virtual HRESULT STDMETHODCALLTYPE FindPackages(PackageIterable**) = 0;  // slot 11
};
struct PackageManager2 : Inspectable
{
    static constexpr GUID kId = Id("F7AAD08D-0840-46F2-B5D8-CAD47693A095");
    virtual HRESULT STDMETHODCALLTYPE RemovePackage(String, UINT32, AsyncOperation<DeploymentKind>**) = 0;
};
struct StoreContext : Inspectable
{
    static constexpr GUID kId = Id("AC98B6BE-F4FD-4912-BABD-5035E5E8BCAB");
};
struct StoreContextStatics : Inspectable
{
    static constexpr GUID kId = Id("9C06EE5F-15C0-4E72-9330-D6191CEBD19C");
    virtual HRESULT STDMETHODCALLTYPE GetDefault(StoreContext**) = 0;
};
struct StoreContext3 : WithUnused<9>
{
    static constexpr GUID kId = Id("E26226CA-1A01-4730-85A6-ECC896E4AE38");
    virtual HRESULT STDMETHODCALLTYPE DownloadAndInstall(StringIterable*, AsyncOperation<UpdateKind>**) = 0;  // 15
};
struct InitializeWithWindow : ::IUnknown
{
    static constexpr GUID kId = Id("3E68D4BD-7135-4D10-8018-9FB6D9F33FA1");
    virtual HRESULT STDMETHODCALLTYPE Initialize(HWND) = 0;
};

// --- Objects
// Implements the interfaces; the first one is the object's identity. Counted, so that a leak shows.
inline std::atomic<int> liveObjects = 0;

template <typename... Interfaces>
class Object : public Interfaces...
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override
    {
        *object = nullptr;
        void* identity = nullptr;
        const auto offer = [&](auto* candidate, const GUID& own) {
            identity = identity == nullptr ? candidate : identity;
            *object = id == own ? candidate : *object;
        };
        (offer(static_cast<Interfaces*>(this), Interfaces::kId), ...);
        if (id == IID_IUnknown || id == kAgileObject)
        {
            *object = identity;
        }
        if (*object == nullptr)
        {
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --references_;
        if (left == 0)
        {
            delete this;
        }
        return left;
    }

    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    Object(Object&&) = delete;
    Object& operator=(Object&&) = delete;

protected:
    Object() { ++liveObjects; }
    virtual ~Object() { --liveObjects; }

private:
    std::atomic<ULONG> references_ = 1;
};
}  // namespace repair::component
