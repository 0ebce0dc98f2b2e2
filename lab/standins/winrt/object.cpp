#include "object.h"

#include <cwchar>
#include <mutex>
#include <set>
#include <vector>

namespace lab
{
namespace
{
std::mutex mutex;

std::set<Living*>& TheLiving()
{
    static auto& living = *new std::set<Living*>;
    return living;
}

struct Kept
{
    const wchar_t* what;
    IUnknown* object;
};

std::vector<Kept>& TheKept()
{
    static auto& kept = *new std::vector<Kept>;
    return kept;
}

struct Known
{
    GUID iid;
    const wchar_t* name;
};

template <class Interface>
constexpr Known Name()
{
    return {Interface::kIid, Interface::kName};
}

constexpr Known kKnown[] = {
    Name<abi::IInspectable>(),
    Name<abi::IAgileObject>(),
    Name<abi::IActivationFactory>(),
    Name<abi::IRestrictedErrorInfo>(),
    Name<abi::IAsyncInfo>(),
    Name<abi::IDeploymentOperation>(),
    Name<abi::IStoreOperation>(),
    Name<abi::IStringIterable>(),
    Name<abi::IPackageIterator>(),
    Name<abi::IPackageIterable>(),
    Name<abi::IPackageId>(),
    Name<abi::IPackageStatus>(),
    Name<abi::IPackage>(),
    Name<abi::IPackage3>(),
    Name<abi::IDeploymentResult>(),
    Name<abi::IPackageManager>(),
    Name<abi::IPackageManager2>(),
    Name<abi::IInitializeWithWindow>(),
    Name<abi::IStorePackageUpdateResult>(),
    Name<abi::IStoreContext>(),
    Name<abi::IStoreContext3>(),
    Name<abi::IStoreContextStatics>(),
    {{0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}}, L"IUnknown"},
    {{3, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}}, L"IMarshal"},
    {{0x1CF2B120, 0x547D, 0x101B, {0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19}}, L"IErrorInfo"}};
}  // namespace

std::wstring InterfaceName(const GUID& iid)
{
    for (const Known& known : kKnown)
    {
        if (IsEqualGUID(iid, known.iid))
            return known.name;
    }
    wchar_t text[40];
    StringFromGUID2(iid, text, static_cast<int>(std::size(text)));
    return text;
}

Living::Living(std::wstring className) : className_(std::move(className))
{
    const std::scoped_lock lock(mutex);
    TheLiving().insert(this);
}

Living::~Living()
{
    const std::scoped_lock lock(mutex);
    TheLiving().erase(this);
}

void RecordWhatIsStillHeld()
{
    if (!mutex.try_lock())
        return;
    for (const Living* object : TheLiving())
        RecordAtEnd(L"still held: " + object->ClassName() + L" refs=" + std::to_wstring(object->References()));
    mutex.unlock();
}

void KeepUntilTheEnd(const wchar_t* what, IUnknown* object)
{
    object->AddRef();
    const std::scoped_lock lock(mutex);
    TheKept().push_back({what, object});
}

void RecordWhatTheProgramStillHolds()
{
    for (const Kept& kept : TheKept())
        RecordAtEnd(std::wstring(kept.what) + L" released count=" + std::to_wstring(kept.object->Release()));
    TheKept().clear();
}
}  // namespace lab
