// Windows Runtime: strings, activation, and the package manager's objects through the interfaces that the tool
// declares. Nothing is removed; the packages are only looked at.
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <atomic>
#include <cwctype>

#include "base/library.h"
#include "store/store_packages.h"
#include "windows_check/check.h"
#include "windows_check/probes.h"
#include "windows_check/runtime_objects.h"
#include "windows_check/words.h"

namespace windows_check
{
using repair::Reference;

std::wstring ClassOf(abi::IInspectable* object)
{
    abi::HString name = nullptr;
    const HRESULT code = object->GetRuntimeClassName(&name);
    const repair::HStringOwner owner(name);
    return FAILED(code) ? ResultOf(code) : repair::ToWide(name);
}

namespace
{
constexpr UINT32 kMainPackages = 1;

// An interface that nobody has.
struct Nobodys
{
    static constexpr GUID kIid = {0x5B0D31C4, 0x9E4F, 0x4D3B, {0x8A, 0x61, 0x27, 0xC0, 0x5E, 0x12, 0xF9, 0x04}};
};

std::wstring Told(const repair::WinrtError& error)
{
    return ResultOf(error.code);
}

template <typename Look>
Seen Guarded(Look look)
{
    try
    {
        return look();
    }
    catch (const repair::WinrtError& error)
    {
        if (error.code == REGDB_E_CLASSNOTREG)
        {
            return DoesNotApply(L"this system does not have the class");
        }
        return Saw(Told(error), error.message);
    }
}

Reference<abi::IInspectable> MakeManager()
{
    Reference<abi::IActivationFactory> factory(static_cast<abi::IActivationFactory*>(
        repair::ActivateFactory(abi::kPackageManagerClass, abi::IActivationFactory::kIid)));
    abi::IInspectable* instance = nullptr;
    const HRESULT code = factory.Get()->ActivateInstance(&instance);
    return repair::TakeObject(code, instance);
}

Reference<abi::IPackageIterable> PackagesOfUser()
{
    const Reference<abi::IInspectable> instance = MakeManager();
    const auto manager = repair::QueryFor<PackageManagerOfUser>(instance.Get());
    abi::IPackageIterable* found = nullptr;
    const HRESULT code = manager.Get()->FindPackagesByUserSecurityId(nullptr, &found);
    return repair::TakeObject(code, found);
}

// As the tool asks, where that is allowed.
Reference<abi::IPackageIterable> Packages()
{
    if (!ThisMachine().isElevated)
    {
        return PackagesOfUser();
    }
    const Reference<abi::IInspectable> instance = MakeManager();
    const auto manager = repair::QueryFor<abi::IPackageManager>(instance.Get());
    abi::IPackageIterable* found = nullptr;
    const HRESULT code = manager.Get()->FindPackages(&found);
    return repair::TakeObject(code, found);
}

// Enumerates as the tool does; `visit` says whether to go on. How many packages there were.
template <typename Visit>
int ForEach(abi::IPackageIterable* packages, Visit visit)
{
    abi::IPackageIterator* first = nullptr;
    const HRESULT code = packages->First(&first);
    const Reference<abi::IPackageIterator> iterator = repair::TakeObject(code, first);
    abi::Boolean hasCurrent = 0;
    repair::CheckResult(iterator.Get()->get_HasCurrent(&hasCurrent));
    int count = 0;
    while (hasCurrent != 0)
    {
        abi::IPackage* current = nullptr;
        const HRESULT currentCode = iterator.Get()->get_Current(&current);
        const Reference<abi::IPackage> package = repair::TakeObject(currentCode, current);
        ++count;
        if (!visit(package.Get()))
        {
            return count;
        }
        repair::CheckResult(iterator.Get()->MoveNext(&hasCurrent));
    }
    return count;
}

Reference<abi::IPackageId> IdOf(abi::IPackage* package)
{
    abi::IPackageId* id = nullptr;
    const HRESULT code = package->get_Id(&id);
    return repair::TakeObject(code, id);
}

std::wstring FullNameOf(abi::IPackageId* id)
{
    abi::HString name = nullptr;
    const HRESULT code = id->get_FullName(&name);
    const repair::HStringOwner owner(name);
    repair::CheckResult(code);
    return repair::ToWide(name);
}

std::wstring VersionOf(abi::IPackageId* id)
{
    abi::PackageVersion version;
    repair::CheckResult(id->get_Version(&version));
    return Number(version.Major) + L"." + Number(version.Minor) + L"." + Number(version.Build) + L"." +
           Number(version.Revision);
}

// Name_1.2.3.4_x64_resource_publisher: the full name must carry the version that get_Version gives. A method in a wrong
// slot would give something else.
bool IsPlausible(const std::wstring& fullName, const std::wstring& version)
{
    const size_t name = fullName.find(L'_');
    return name != std::wstring::npos && name > 0 && fullName.compare(name + 1, version.size(), version) == 0 &&
           fullName[name + 1 + version.size()] == L'_' && std::count(fullName.begin(), fullName.end(), L'_') == 4;
}

Seen EmptyString()
{
    const repair::HStringOwner empty = repair::MakeHString(L"");
    return Saw((empty ? std::wstring(L"an object") : L"null") + L", read as " +
               Quoted(repair::ToWide(abi::HString{nullptr})));
}

Seen StringWithNul()
{
    const std::wstring text(L"a\0b", 3);
    const repair::HStringOwner made = repair::MakeHString(text);
    return Saw(repair::ToWide(made.Get()) == text ? L"whole" : L"cut");
}

const Answer& Activation()
{
    static const Answer answer = Ask(ThisMachine().program, L"activation");
    return answer;
}

Seen WithoutApartment()
{
    return Saw(Activation()[L"bare"], L"apartment: " + Activation()[L"apartment before"]);
}

Seen AfterIncrement()
{
    const std::wstring code = Activation()[L"again"];
    if (code == ResultOf(REGDB_E_CLASSNOTREG))
    {
        return DoesNotApply(L"this system does not have the class");
    }
    return Saw(code, L"CoIncrementMTAUsage: " + Activation()[L"increment"]);
}

Seen ImplicitApartment()
{
    return Saw(Activation()[L"apartment after"]);
}

Seen OtherThreads()
{
    return Saw(Activation()[L"apartment of another thread"]);
}

Seen UnknownClass()
{
    try
    {
        repair::ActivateFactory(L"TavikWindowsCheck.Nobody", abi::IActivationFactory::kIid);
    }
    catch (const repair::WinrtError& error)
    {
        return Saw(Told(error), error.message);
    }
    return Saw(L"a factory");
}

Seen ManagerFactory()
{
    return Guarded([] {
        const Reference<::IUnknown> factory(static_cast<::IUnknown*>(
            repair::ActivateFactory(abi::kPackageManagerClass, abi::IActivationFactory::kIid)));
        void* agile = nullptr;
        const HRESULT code = factory.Get()->QueryInterface(abi::kIidAgileObject, &agile);
        const Reference<::IUnknown> owner(static_cast<::IUnknown*>(agile));
        return Saw(SUCCEEDED(code) ? L"for every thread" : ResultOf(code));
    });
}

Seen ManagerClass()
{
    return Guarded([] { return Saw(ClassOf(MakeManager().Get())); });
}

Seen ManagerInterfaces()
{
    return Guarded([] {
        const Reference<abi::IInspectable> manager = MakeManager();
        return Saw(Answers<abi::IPackageManager>(manager.Get()) + L" " + Answers<abi::IPackageManager2>(manager.Get()));
    });
}

Seen HowMany(abi::IPackageIterable* packages)
{
    const int count = ForEach(packages, [](abi::IPackage*) { return true; });
    return count > 0 ? Saw(L"packages", Number(count)) : DoesNotApply(L"the user has no packages");
}

Seen ManagerSlots()
{
    return Guarded([] { return HowMany(PackagesOfUser().Get()); });
}

Seen Manager2Slots()
{
    return Guarded([] {
        const Reference<abi::IInspectable> instance = MakeManager();
        const auto manager = repair::QueryFor<PackageManager2OfUser>(instance.Get());
        abi::IPackageIterable* found = nullptr;
        const HRESULT code =
            manager.Get()->FindPackagesByUserSecurityIdWithPackageTypes(nullptr, kMainPackages, &found);
        const Reference<abi::IPackageIterable> packages = repair::TakeObject(code, found);
        return HowMany(packages.Get());
    });
}

Seen AllPackages()
{
    if (!ThisMachine().isElevated)
    {
        return DoesNotApply(L"needs an administrator: packages of all users are listed");
    }
    return Guarded([] { return HowMany(Packages().Get()); });
}

Seen AllPackagesRefused()
{
    if (ThisMachine().isElevated)
    {
        return DoesNotApply(L"the program runs as administrator; start it without for this");
    }
    return Guarded([] {
        const Reference<abi::IInspectable> instance = MakeManager();
        const auto manager = repair::QueryFor<abi::IPackageManager>(instance.Get());
        abi::IPackageIterable* found = nullptr;
        const HRESULT code = manager.Get()->FindPackages(&found);
        const Reference<abi::IPackageIterable> owner(found);
        return Saw(ResultOf(code));
    });
}

// Every package of the user, until one has something odd.
template <typename Ask>
Seen OfEachPackage(const wchar_t* wanted, Ask ask)
{
    return Guarded([&] {
        std::wstring seen = wanted;
        std::wstring detail;
        const int count = ForEach(Packages().Get(), [&](abi::IPackage* package) {
            seen = ask(package, detail);
            return seen == wanted;
        });
        return count == 0 ? DoesNotApply(L"the user has no packages")
                          : Saw(seen, Number(count) + L" packages " + detail);
    });
}

Seen PackageClasses()
{
    constexpr wchar_t kWanted[] = L"Package, PackageId, PackageStatus";
    return OfEachPackage(kWanted, [](abi::IPackage* package, std::wstring&) {
        const auto package3 = repair::QueryFor<abi::IPackage3>(package);
        abi::IPackageStatus* found = nullptr;
        const HRESULT code = package3.Get()->get_Status(&found);
        const Reference<abi::IPackageStatus> status = repair::TakeObject(code, found);
        std::wstring seen;
        for (const std::wstring& name : {ClassOf(package), ClassOf(IdOf(package).Get()), ClassOf(status.Get())})
        {
            constexpr wchar_t kSpace[] = L"Windows.ApplicationModel.";
            seen +=
                (seen.empty() ? L"" : L", ") + (name.starts_with(kSpace) ? name.substr(std::size(kSpace) - 1) : name);
        }
        return seen;
    });
}

Seen PackageInterfaces()
{
    return OfEachPackage(L"yes yes yes yes, another 0x80004002", [](abi::IPackage* package, std::wstring&) {
        const auto package3 = repair::QueryFor<abi::IPackage3>(package);
        abi::IPackageStatus* found = nullptr;
        const HRESULT code = package3.Get()->get_Status(&found);
        const Reference<abi::IPackageStatus> status = repair::TakeObject(code, found);
        // The last one has an id that nothing answers: the others can be refused.
        return Answers<abi::IPackage>(package) + L" " + Answers<abi::IPackage3>(package) + L" " +
               Answers<abi::IPackageId>(IdOf(package).Get()) + L" " + Answers<abi::IPackageStatus>(status.Get()) +
               L", another " + Answers<Nobodys>(package);
    });
}

Seen ListInterfaces()
{
    return Guarded([] {
        const Reference<abi::IPackageIterable> packages = Packages();
        abi::IPackageIterator* first = nullptr;
        const HRESULT code = packages.Get()->First(&first);
        const Reference<abi::IPackageIterator> iterator = repair::TakeObject(code, first);
        return Saw(Answers<abi::IPackageIterable>(packages.Get()) + L" " +
                   Answers<abi::IPackageIterator>(iterator.Get()));
    });
}

Seen PackageNames()
{
    return OfEachPackage(L"plausible", [](abi::IPackage* package, std::wstring& detail) {
        const Reference<abi::IPackageId> id = IdOf(package);
        const std::wstring fullName = FullNameOf(id.Get());
        const std::wstring version = VersionOf(id.Get());
        if (IsPlausible(fullName, version))
        {
            return std::wstring(L"plausible");
        }
        detail = fullName + L" " + version;
        return std::wstring(L"not plausible");
    });
}

Seen PackageStatus()
{
    return OfEachPackage(L"0 or 1", [](abi::IPackage* package, std::wstring&) {
        const auto package3 = repair::QueryFor<abi::IPackage3>(package);
        abi::IPackageStatus* found = nullptr;
        const HRESULT code = package3.Get()->get_Status(&found);
        const Reference<abi::IPackageStatus> status = repair::TakeObject(code, found);
        abi::Boolean isOk = 0x55;
        repair::CheckResult(status.Get()->VerifyIsOK(&isOk));
        return isOk <= 1 ? std::wstring(L"0 or 1") : Number(isOk);
    });
}

Seen PastTheEnd()
{
    return Guarded([] {
        const Reference<abi::IPackageIterable> packages = Packages();
        abi::IPackageIterator* first = nullptr;
        const HRESULT code = packages.Get()->First(&first);
        const Reference<abi::IPackageIterator> iterator = repair::TakeObject(code, first);
        abi::Boolean hasCurrent = 1;
        while (hasCurrent != 0)
        {
            repair::CheckResult(iterator.Get()->MoveNext(&hasCurrent));
        }
        abi::IPackage* none = nullptr;
        const HRESULT past = iterator.Get()->get_Current(&none);
        const Reference<abi::IPackage> owner(none);
        return Saw(ResultOf(past));
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
    return (type == APTTYPE_MTA ? L"multithreaded" : L"type " + Number(type)) +
           std::wstring(qualifier == APTTYPEQUALIFIER_IMPLICIT_MTA ? L", implicit" : L"");
}
}  // namespace

int ActivationProbe(int, wchar_t**)
{
    const HMODULE combase = LoadLibraryExW(L"combase.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    using Activate = HRESULT(WINAPI*)(abi::HString, const GUID&, void**);
    using Increment = HRESULT(WINAPI*)(void**);
    auto* const activate = repair::LookUpFunction<Activate>(combase, "RoGetActivationFactory");
    auto* const increment = repair::LookUpFunction<Increment>(combase, "CoIncrementMTAUsage");
    if (activate == nullptr || increment == nullptr)
    {
        return 1;
    }
    const repair::HStringOwner name = repair::MakeHString(abi::kPackageManagerClass);
    void* factory = nullptr;
    Tell(L"apartment before", Apartment());
    Tell(L"bare", ResultOf(activate(name.Get(), abi::IActivationFactory::kIid, &factory)));
    void* cookie = nullptr;
    Tell(L"increment", ResultOf(increment(&cookie)));
    Tell(L"again", ResultOf(activate(name.Get(), abi::IActivationFactory::kIid, &factory)));
    Tell(L"apartment after", Apartment());
    const HANDLE thread = CreateThread(
        nullptr, 0,
        [](void*) -> DWORD {
            Tell(L"apartment of another thread", Apartment());
            return 0;
        },
        nullptr, 0, nullptr);
    WaitForSingleObject(thread, 5000);
    CloseHandle(thread);
    return 0;
}

std::vector<Check> RuntimeChecks()
{
    return {
        {"runtime.empty_string", EmptyString},
        {"runtime.string_with_nul", StringWithNul},
        {"runtime.without_apartment", WithoutApartment, 30'000},
        {"runtime.after_increment", AfterIncrement, 30'000},
        {"runtime.implicit_apartment", ImplicitApartment, 30'000},
        {"runtime.other_threads", OtherThreads, 30'000},
        {"runtime.unknown_class", UnknownClass},
        {"runtime.manager_factory", ManagerFactory, 30'000},
        {"runtime.manager_class", ManagerClass, 30'000},
        {"runtime.manager_interfaces", ManagerInterfaces, 30'000},
        {"runtime.manager_slots", ManagerSlots, 60'000},
        {"runtime.manager2_slots", Manager2Slots, 60'000},
        {"runtime.all_packages", AllPackages, 60'000},
        {"runtime.all_packages_refused", AllPackagesRefused, 60'000},
        {"runtime.package_classes", PackageClasses, 60'000},
        {"runtime.package_interfaces", PackageInterfaces, 60'000},
        {"runtime.list_interfaces", ListInterfaces, 60'000},
        {"runtime.package_names", PackageNames, 60'000},
        {"runtime.package_status", PackageStatus, 120'000},
        {"runtime.past_the_end", PastTheEnd, 60'000},
    };
}
}  // namespace windows_check
