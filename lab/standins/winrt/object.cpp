#include "object.h"

#include <array>
#include <mutex>
#include <set>
#include <span>
#include <vector>

#include "lab_file.h"

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

struct Known
{
    GUID iid;
    const wchar_t* name;
};

template <class... Interfaces>
constexpr std::array<Known, sizeof...(Interfaces)> Names()
{
    return {Known{Interfaces::kIid, Interfaces::kName}...};
}

constexpr auto kKnown =
    Names<abi::IInspectable, abi::IAgileObject, abi::IActivationFactory, abi::IErrorInfo, abi::IRestrictedErrorInfo,
          abi::IAsyncInfo, abi::IDeploymentOperation, abi::IStoreOperation, abi::IStringIterable, abi::IPackageIterator,
          abi::IPackageIterable, abi::IPackageId, abi::IPackageStatus, abi::IPackage, abi::IPackage3,
          abi::IDeploymentResult, abi::IPackageManager, abi::IPackageManager2, abi::IInitializeWithWindow,
          abi::IStorePackageUpdateResult, abi::IStoreContext, abi::IStoreContext3, abi::IStoreContextStatics>();
constexpr Known kClassic[] = {{abi::Id("00000000-0000-0000-C000-000000000046"), L"IUnknown"},
                              {abi::Id("00000003-0000-0000-C000-000000000046"), L"IMarshal"}};
}  // namespace

HRESULT Record(const std::wstring& text, HRESULT result)
{
    Record(text + L" -> " + standin::Hex(static_cast<ULONG>(result)));
    return result;
}

std::vector<Kept>& TheKept()
{
    static auto& kept = *new std::vector<Kept>;
    return kept;
}

std::wstring InterfaceName(const GUID& iid)
{
    for (const std::span<const Known> list : {std::span<const Known>(kKnown), std::span<const Known>(kClassic)})
    {
        for (const Known& known : list)
        {
            if (IsEqualGUID(iid, known.iid))
            {
                return known.name;
            }
        }
    }
    wchar_t text[40];
    StringFromGUID2(iid, text, static_cast<int>(std::size(text)));
    return text;
}

Living::Living(std::wstring className, Answers answers) : className_(std::move(className)), answers_(std::move(answers))
{
    const std::scoped_lock lock(mutex);
    TheLiving().insert(this);
}

Living::~Living()
{
    const std::scoped_lock lock(mutex);
    TheLiving().erase(this);
}

const Answer* Living::AnswerOf(const std::wstring& method)
{
    const auto found = answers_.find(method);
    if (found == answers_.end())
    {
        return nullptr;
    }
    const Answer& answer = found->second;
    return answer.onlyCall == 0 || answer.onlyCall == ++calls_[method] ? &answer : nullptr;
}

void RecordWhatIsStillHeld()
{
    if (!mutex.try_lock())
    {
        return;
    }
    for (const Living* object : TheLiving())
    {
        RecordAtEnd(L"still held: " + object->ClassName() + L" refs=" + std::to_wstring(object->References()));
    }
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
    {
        RecordAtEnd(std::wstring(kept.what) + L" released count=" + std::to_wstring(kept.object->Release()));
    }
    TheKept().clear();
}
}  // namespace lab
