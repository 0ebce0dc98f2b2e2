// Windows Runtime: strings, activation, and the package manager's objects. Packages are listed, never changed.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "base/library.h"
#include "windows_check/check.h"
#include "windows_check/probe.h"
#include "windows_check/runtime_objects.h"
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
constexpr UINT32 kMainPackages = 1;

// An interface that no object has.
struct UnknownInterface
{
    static constexpr GUID kIid = winrt_abi::Id("5B0D31C4-9E4F-4D3B-8A61-27C05E12F904");
};

Reference<winrt_abi::IInspectable> MakeManager()
{
    const auto factory = Activated<winrt_abi::IActivationFactory>(winrt_abi::kPackageManagerClass);
    return Get(factory.Get(), &winrt_abi::IActivationFactory::ActivateInstance);
}

// As the tool asks, where that is allowed; otherwise the packages of the current user.
Reference<winrt_abi::IPackageIterable> Packages(bool areOfAllUsers = ThisPc().isElevated)
{
    const auto manager = repair::QueryFor<winrt_abi::IPackageManager>(MakeManager().Get());
    return Given<winrt_abi::IPackageIterable>([&](auto** found) {
        return areOfAllUsers ? manager.Get()->FindPackages(found)
                             : manager.Get()->FindPackagesByUserSecurityId(nullptr, found);
    });
}

// Enumerates as the tool does, until `visit` returns false. Returns how many packages it has seen.
template <typename Visit>
int ForEach(winrt_abi::IPackageIterable* packages, Visit visit)
{
    const auto iterator = Get(packages, &winrt_abi::IPackageIterable::First);
    boolean hasCurrent = 0;
    repair::CheckResult(iterator.Get()->get_HasCurrent(&hasCurrent));
    int count = 0;
    while (hasCurrent != 0)
    {
        const auto package = Get(iterator.Get(), &winrt_abi::IPackageIterator::get_Current);
        ++count;
        if (!visit(package.Get()))
        {
            break;
        }
        repair::CheckResult(iterator.Get()->MoveNext(&hasCurrent));
    }
    return count;
}

Reference<winrt_abi::IPackageId> IdOf(winrt_abi::IPackage* package)
{
    return Get(package, &winrt_abi::IPackage::get_Id);
}

Reference<winrt_abi::IPackageStatus> StatusOf(winrt_abi::IPackage* package)
{
    return Get(repair::QueryFor<winrt_abi::IPackage3>(package).Get(), &winrt_abi::IPackage3::get_Status);
}

// Name_1.2.3.4_x64_resource_publisher: the full name must contain the version that get_Version gives. A method in a
// wrong slot would give something different.
bool IsPlausible(const std::wstring& fullName, const std::wstring& version)
{
    const size_t name = fullName.find(L'_');
    return name != std::wstring::npos && name > 0 && fullName.compare(name + 1, version.size(), version) == 0 &&
           fullName[name + 1 + version.size()] == L'_' && std::count(fullName.begin(), fullName.end(), L'_') == 4;
}

SHORT_FACT(runtime, empty_string,
           Saw((repair::MakeHString(L"") ? L"an object, read as " : L"null, read as ") +
               Quoted(repair::ToWide(repair::abi::HString{nullptr}))))

FACT(runtime, string_with_nul)
{
    const std::wstring text(L"a\0b", 3);
    const repair::HStringOwner made = repair::MakeHString(text);
    return Saw(repair::ToWide(made.Get()) == text ? L"whole" : L"cut");
}

const Answer& Activation()
{
    static const Answer answer = Ask(ThisPc().program, L"activation");
    return answer;
}

SHORT_FACT(runtime, without_apartment, Saw(Activation()[L"bare"], L"apartment: " + Activation()[L"apartment before"]))

FACT(runtime, after_increment)
{
    const std::wstring code = Activation()[L"again"];
    Need(code != ResultOf(REGDB_E_CLASSNOTREG), L"this system does not have the class");
    return Saw(code, L"CoIncrementMTAUsage: " + Activation()[L"increment"]);
}

SHORT_FACT(runtime, implicit_apartment, Saw(Activation()[L"apartment after"]))
SHORT_FACT(runtime, other_threads, Saw(Activation()[L"apartment of another thread"]))

FACT(runtime, unknown_class)
{
    try
    {
        Activated<winrt_abi::IActivationFactory>(L"TavikWindowsCheck.Unknown");
    }
    catch (const repair::WinrtError& error)
    {
        return Saw(ResultOf(error.code), error.message);
    }
    return Saw(L"a factory");
}

FACT(runtime, manager_factory)
{
    const auto factory = Activated<winrt_abi::IActivationFactory>(winrt_abi::kPackageManagerClass);
    const std::wstring answer = Answers<winrt_abi::IAgileObject>(factory.Get());
    return Saw(answer == L"yes" ? L"for every thread" : answer);
}

SHORT_FACT(runtime, manager_class, Saw(ClassOf(MakeManager().Get())))

FACT(runtime, manager_interfaces)
{
    const Reference<winrt_abi::IInspectable> manager = MakeManager();
    return Saw(Answers<winrt_abi::IPackageManager>(manager.Get()) + L" " +
               Answers<winrt_abi::IPackageManager2>(manager.Get()));
}

Seen HowMany(const Reference<winrt_abi::IPackageIterable>& packages)
{
    const int count = ForEach(packages.Get(), [](winrt_abi::IPackage*) { return true; });
    Need(count > 0, L"the user has no packages");
    return Saw(L"packages", Number(count));
}

SHORT_FACT(runtime, manager_slots, HowMany(Packages(false)))

FACT(runtime, manager2_slots)
{
    const auto manager = repair::QueryFor<winrt_abi::IPackageManager2>(MakeManager().Get());
    return HowMany(Given<winrt_abi::IPackageIterable>([&](auto** found) {
        return manager.Get()->FindPackagesByUserSecurityIdWithPackageTypes(nullptr, kMainPackages, found);
    }));
}

FACT(runtime, all_packages)
{
    Need(ThisPc().isElevated, L"needs an administrator: packages of all users are listed");
    return HowMany(Packages());
}

// Asks about every package, until an answer is not the wanted one.
template <typename Ask>
Seen OfEachPackage(const wchar_t* wanted, Ask ask)
{
    std::wstring seen = wanted;
    std::wstring detail;
    const int count = ForEach(Packages().Get(), [&](winrt_abi::IPackage* package) {
        seen = ask(package, detail);
        return seen == wanted;
    });
    Need(count > 0, L"the user has no packages");
    return Saw(seen, Number(count) + L" packages " + detail);
}

FACT(runtime, package_classes)
{
    return OfEachPackage(L"Package, PackageId, PackageStatus", [](winrt_abi::IPackage* package, std::wstring&) {
        constexpr wchar_t kSpace[] = L"Windows.ApplicationModel.";
        std::vector<std::wstring> names = {ClassOf(package), ClassOf(IdOf(package).Get()),
                                           ClassOf(StatusOf(package).Get())};
        for (std::wstring& name : names)
        {
            name = name.starts_with(kSpace) ? name.substr(std::size(kSpace) - 1) : name;
        }
        return Joined(names, L", ");
    });
}

FACT(runtime, package_interfaces)
{
    return OfEachPackage(L"yes yes yes yes, another 0x80004002", [](winrt_abi::IPackage* package, std::wstring&) {
        // No object has the last one: a refusal is possible.
        return Joined({Answers<winrt_abi::IPackage>(package), Answers<winrt_abi::IPackage3>(package),
                       Answers<winrt_abi::IPackageId>(IdOf(package).Get()),
                       Answers<winrt_abi::IPackageStatus>(StatusOf(package).Get())}) +
               L", another " + Answers<UnknownInterface>(package);
    });
}

FACT(runtime, list_interfaces)
{
    const Reference<winrt_abi::IPackageIterable> packages = Packages();
    const auto iterator = Get(packages.Get(), &winrt_abi::IPackageIterable::First);
    return Saw(Answers<winrt_abi::IPackageIterable>(packages.Get()) + L" " +
               Answers<winrt_abi::IPackageIterator>(iterator.Get()));
}

FACT(runtime, package_names)
{
    return OfEachPackage(L"plausible", [](winrt_abi::IPackage* package, std::wstring& detail) -> std::wstring {
        const Reference<winrt_abi::IPackageId> id = IdOf(package);
        HSTRING name = nullptr;
        const HRESULT code = id.Get()->get_FullName(&name);
        const std::wstring fullName = Taken(code, name);
        winrt_abi::PackageVersion found = {};
        repair::CheckResult(id.Get()->get_Version(&found));
        const std::wstring version =
            Joined({Number(found.major), Number(found.minor), Number(found.build), Number(found.revision)}, L".");
        const bool isPlausible = IsPlausible(fullName, version);
        detail = isPlausible ? L"" : fullName + L" " + version;
        return isPlausible ? L"plausible" : L"not plausible";
    });
}

FACT(runtime, package_status)
{
    return OfEachPackage(L"0 or 1", [](winrt_abi::IPackage* package, std::wstring&) {
        boolean isOk = 0x55;
        repair::CheckResult(StatusOf(package).Get()->VerifyIsOK(&isOk));
        return isOk <= 1 ? std::wstring(L"0 or 1") : Number(isOk);
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
}  // namespace
}  // namespace windows_check
