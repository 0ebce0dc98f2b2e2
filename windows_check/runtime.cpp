// Windows Runtime: activation, the package manager's objects, the Store's context. Packages are listed, never changed;
// nothing is downloaded or installed.
//
// The checks use the lab's declaration, which is independent of the tool's; tests/store/winrt_abi_test.cpp compares the
// two.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <set>
#include <thread>

#include "base/library.h"
#include "lab/standins/winrt/abi.h"
#include "store/winrt_runtime.h"
#include "windows_check/check.h"
#include "windows_check/probe.h"
#include "windows_check/words.h"

// The objects belong to Windows, so this is never called.
HRESULT winrt_abi::UnusedSlot(const wchar_t*, const wchar_t*)
{
    return E_NOTIMPL;
}

namespace windows_check
{
namespace
{
using repair::CheckResult;
using repair::QueryFor;
using repair::Receive;
using repair::Reference;

template <typename Object, typename Interface>
Reference<Interface> Get(Object* object, HRESULT (STDMETHODCALLTYPE Object::*method)(Interface**))
{
    return Receive<Interface>([&](Interface** found) { return (object->*method)(found); });
}

// A text that an object gives.
template <typename Object>
std::wstring Text(Object* object, HRESULT (STDMETHODCALLTYPE Object::*method)(HSTRING*))
{
    HSTRING text = nullptr;
    const HRESULT code = (object->*method)(&text);
    const repair::HStringOwner owner(reinterpret_cast<repair::abi::HString>(text));
    CheckResult(code);
    return repair::ToWide(owner.Get());
}

template <typename Interface>
Reference<Interface> Activated(const wchar_t* className)
{
    return Reference<Interface>(static_cast<Interface*>(repair::ActivateFactory(className, Interface::kIid)));
}

Reference<winrt_abi::IActivationFactory> ManagerFactory()
{
    return Activated<winrt_abi::IActivationFactory>(winrt_abi::kPackageManagerClass);
}

template <typename Interface>
Reference<Interface> Manager()
{
    return QueryFor<Interface>(Get(ManagerFactory().Get(), &winrt_abi::IActivationFactory::ActivateInstance).Get());
}

// As the tool asks, where that is allowed; otherwise the packages of the current user.
Reference<winrt_abi::IPackageIterable> Packages(bool areOfAllUsers = ThisPc().isElevated)
{
    const auto manager = Manager<winrt_abi::IPackageManager>();
    return Receive<winrt_abi::IPackageIterable>([&](auto** found) {
        return areOfAllUsers ? manager.Get()->FindPackages(found)
                             : manager.Get()->FindPackagesByUserSecurityId(nullptr, found);
    });
}

// Asks the same about each package, enumerated as the tool does; different answers are all reported.
template <typename Ask>
Seen OfEachPackage(const Reference<winrt_abi::IPackageIterable>& packages, Ask ask)
{
    const auto iterator = Get(packages.Get(), &winrt_abi::IPackageIterable::First);
    std::set<std::wstring> answers;
    boolean hasCurrent = 0;
    CheckResult(iterator.Get()->get_HasCurrent(&hasCurrent));
    while (hasCurrent != 0)
    {
        answers.insert(ask(Get(iterator.Get(), &winrt_abi::IPackageIterator::get_Current).Get()));
        CheckResult(iterator.Get()->MoveNext(&hasCurrent));
    }
    Need(!answers.empty(), L"the user has no packages");
    return Joined({answers.begin(), answers.end()});
}

Seen AreListed(const Reference<winrt_abi::IPackageIterable>& packages)
{
    return OfEachPackage(packages, [](winrt_abi::IPackage*) { return L"packages"; });
}

const Answer& Activation()
{
    static const Answer answer = Ask(L"activation");
    return answer;
}

SHORT_FACT(runtime, without_apartment, {Activation()[L"bare"], L"apartment: " + Activation()[L"apartment before"]})

FACT(runtime, after_increment)
{
    const std::wstring code = Activation()[L"again"];
    Need(code != ResultOf(REGDB_E_CLASSNOTREG), L"this system does not have the class");
    return {code, L"CoIncrementMTAUsage: " + Activation()[L"increment"]};
}

SHORT_FACT(runtime, implicit_apartment,
           Activation()[L"apartment after"] + L"; another thread: " + Activation()[L"apartment of another thread"])

FACT(runtime, manager_factory)
{
    QueryFor<winrt_abi::IAgileObject>(ManagerFactory().Get());
    return L"for every thread";
}

SHORT_FACT(runtime, manager_slots, AreListed(Packages(false)))

FACT(runtime, manager2_slots)
{
    constexpr UINT32 kMainPackages = 1;
    const auto manager = Manager<winrt_abi::IPackageManager2>();
    return AreListed(Receive<winrt_abi::IPackageIterable>([&](auto** found) {
        return manager.Get()->FindPackagesByUserSecurityIdWithPackageTypes(nullptr, kMainPackages, found);
    }));
}

FACT(runtime, all_packages)
{
    Need(ThisPc().isElevated, L"needs an administrator: packages of all users are listed");
    return AreListed(Packages());
}

// Name_1.2.3.4_x64_resource_publisher: the full name must contain the version that get_Version gives. A method in a
// wrong slot would give something different.
FACT(runtime, package_names)
{
    return OfEachPackage(Packages(), [](winrt_abi::IPackage* package) {
        const auto id = Get(package, &winrt_abi::IPackage::get_Id);
        const std::wstring name = Text(id.Get(), &winrt_abi::IPackageId::get_FullName);
        winrt_abi::PackageVersion found = {};
        CheckResult(id.Get()->get_Version(&found));
        const std::wstring version =
            Joined({Number(found.major), Number(found.minor), Number(found.build), Number(found.revision)}, L".");
        const bool isPlausible = std::count(name.begin(), name.end(), L'_') == 4 && name.find(L'_') > 0 &&
                                 name.substr(name.find(L'_')).starts_with(L"_" + version + L"_");
        return isPlausible ? L"plausible" : name + L" " + version;
    });
}

FACT(runtime, package_status)
{
    return OfEachPackage(Packages(), [](winrt_abi::IPackage* package) {
        const auto status = Get(QueryFor<winrt_abi::IPackage3>(package).Get(), &winrt_abi::IPackage3::get_Status);
        boolean isOk = 0x55;
        CheckResult(status.Get()->VerifyIsOK(&isOk));
        return isOk <= 1 ? L"0 or 1" : Number(isOk);
    });
}

std::wstring Apartment()
{
    APTTYPE type = APTTYPE_STA;
    APTTYPEQUALIFIER qualifier = APTTYPEQUALIFIER_NONE;
    const HRESULT code = CoGetApartmentType(&type, &qualifier);
    if (FAILED(code))
    {
        return ResultOf(code);
    }
    return (type == APTTYPE_MTA ? L"multithreaded" : L"type " + std::to_wstring(type)) +
           std::wstring(qualifier == APTTYPEQUALIFIER_IMPLICIT_MTA ? L", implicit" : L"");
}

PROBE(activation)
{
    const HMODULE combase = LoadLibraryExW(L"combase.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    using Activate = HRESULT(WINAPI*)(repair::abi::HString, const GUID&, void**);
    using Increment = HRESULT(WINAPI*)(void**);
    auto* const activate = repair::LookUpFunction<Activate>(combase, "RoGetActivationFactory");
    auto* const increment = repair::LookUpFunction<Increment>(combase, "CoIncrementMTAUsage");
    if (activate == nullptr || increment == nullptr)
    {
        return 1;
    }
    const repair::HStringOwner name = repair::MakeHString(winrt_abi::kPackageManagerClass);
    void* factory = nullptr;
    Tell(L"apartment before", Apartment());
    Tell(L"bare", ResultOf(activate(name.Get(), winrt_abi::IActivationFactory::kIid, &factory)));
    void* cookie = nullptr;
    Tell(L"increment", ResultOf(increment(&cookie)));
    Tell(L"again", ResultOf(activate(name.Get(), winrt_abi::IActivationFactory::kIid, &factory)));
    Tell(L"apartment after", Apartment());
    std::thread([] { Tell(L"apartment of another thread", Apartment()); }).join();
    return 0;
}

Reference<winrt_abi::IStoreContext> Context()
{
    const auto factory = Activated<winrt_abi::IStoreContextStatics>(winrt_abi::kStoreContextClass);
    return Get(factory.Get(), &winrt_abi::IStoreContextStatics::GetDefault);
}

FACT(store, default_context)
{
    return Text<winrt_abi::IInspectable>(Context().Get(), &winrt_abi::IInspectable::GetRuntimeClassName);
}

// The first method of the interface, a question without any effect: may packages be downloaded silently?
FACT(store, context3_slots)
{
    const auto context3 = QueryFor<winrt_abi::IStoreContext3>(Context().Get());
    boolean can = 0x55;
    CheckResult(context3.Get()->get_CanSilentlyDownloadStorePackageUpdates(&can));
    return can <= 1 ? L"0 or 1" : Number(can);
}

FACT(store, with_window)
{
    const auto withWindow = QueryFor<winrt_abi::IInitializeWithWindow>(Context().Get());
    // A hidden window.
    const HWND window = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    const HRESULT code = withWindow.Get()->Initialize(window);
    DestroyWindow(window);
    return ResultOf(code);
}
}  // namespace
}  // namespace windows_check
