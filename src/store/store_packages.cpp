#include "store/store_packages.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include <windows.h>

#include "base/log.h"
#include "base/text.h"
#include "store/constants.h"
#include "store/wait_for_async.h"
#include "store/winrt_runtime.h"

namespace repair
{
namespace
{
std::atomic<abi::IActivationFactory*> packageManagerFactory = nullptr;

Reference<abi::IPackageManager> CreatePackageManager()
{
    DropErrorObject();  // of whatever the thread has done before
    abi::IActivationFactory* const factory = CachedFactory(packageManagerFactory, abi::kPackageManagerClass);
    const auto instance = Receive<abi::IInspectable>([&](auto** made) { return factory->ActivateInstance(made); });
    return QueryFor<abi::IPackageManager>(instance.Get());
}

// Takes the text that `call` puts into its [out] parameter. Throws WinrtError for a failure.
template <typename Call>
std::wstring ReceiveText(Call call)
{
    abi::HString text = nullptr;
    const HRESULT code = call(&text);
    const HStringOwner owner(text);
    CheckResult(code);
    return ToWide(text);
}

Reference<abi::IPackageId> GetPackageId(abi::IPackage* package)
{
    if (package == nullptr)
    {
        ThrowOwnError(E_POINTER);
    }
    return Receive<abi::IPackageId>([&](auto** id) { return package->get_Id(id); });
}

std::wstring GetFullName(abi::IPackageId* id)
{
    return ReceiveText([&](abi::HString* name) { return id->get_FullName(name); });
}

PackageVersion GetVersion(abi::IPackageId* id)
{
    PackageVersion version;
    CheckResult(id->get_Version(&version));
    return version;
}

// Calls `visit(package, fullName, version)` for each of the application's packages of all users. Logs what fails for
// one package, with the name if it was read, and goes on with the next one; throws the enumeration's own errors.
template <typename Visit>
void ForEachStorePackage(abi::IPackageManager* manager, Visit visit)
{
    const auto packages = Receive<abi::IPackageIterable>([&](auto** found) { return manager->FindPackages(found); });
    const auto iterator = Receive<abi::IPackageIterator>([&](auto** first) { return packages.Get()->First(first); });
    abi::Boolean hasCurrent = 0;
    CheckResult(iterator.Get()->get_HasCurrent(&hasCurrent));
    while (hasCurrent != 0)
    {
        abi::IPackage* current = nullptr;
        const HRESULT currentCode = iterator.Get()->get_Current(&current);
        const Reference<abi::IPackage> package(current);
        CheckResult(currentCode);
        std::wstring fullName;
        try
        {
            const Reference<abi::IPackageId> id = GetPackageId(package.Get());
            fullName = GetFullName(id.Get());
            if (MatchesStorePackage(fullName))
            {
                visit(package.Get(), fullName, GetVersion(id.Get()));
            }
        }
        catch (const WinrtError& error)
        {
            LogLine(L"Exception %s when enumerating info for %s", error.message.c_str(), fullName.c_str());
        }
        catch (...)
        {
            LogLine(L"Unknown expection occured when enumerating info for %s", fullName.c_str());
        }
        CheckResult(iterator.Get()->MoveNext(&hasCurrent));
    }
}

bool IsUsable(abi::IPackage* package)
{
    const Reference<abi::IPackage3> package3 = QueryFor<abi::IPackage3>(package);
    const auto status = Receive<abi::IPackageStatus>([&](auto** found) { return package3.Get()->get_Status(found); });
    abi::Boolean isOk = 0;
    CheckResult(status.Get()->VerifyIsOK(&isOk));
    return isOk != 0;
}

void RemovePackage(abi::IPackageManager* manager, const std::wstring& fullName)
{
    const Reference<abi::IPackageManager2> manager2 = QueryFor<abi::IPackageManager2>(manager);
    const HStringOwner name = MakeHString(fullName);
    const auto operation = Receive<abi::IAsyncOperation<abi::Deployment>>([&](auto** started) {
        return manager2.Get()->RemovePackageWithOptionsAsync(name.Get(), abi::kRemoveForAllUsers, started);
    });
    const Reference<abi::IDeploymentResult> result = WaitForAsync(operation.Get());

    HRESULT extendedError = S_OK;
    CheckResult(result.Get()->get_ExtendedErrorCode(&extendedError));
    const std::wstring text = ReceiveText([&](abi::HString* given) { return result.Get()->get_ErrorText(given); });
    LogLine(L"\t Result = %d %s", extendedError, text.c_str());
}
}  // namespace

bool MatchesStorePackage(const std::wstring& fullName)
{
    bool matches = false;
    for (const std::wstring& name : StorePackageNames)
    {
        matches |= ContainsNoCase(fullName, name);
    }
    return matches;
}

PackageVersion FindStorePackageVersion()
{
    std::vector<PackageVersion> versions;
    const Reference<abi::IPackageManager> manager = CreatePackageManager();
    ForEachStorePackage(manager.Get(), [&](auto* package, const std::wstring& fullName, PackageVersion version) {
        LogLine(L"User has %s - version %d.%d.%d.%d", fullName.c_str(), version.Major, version.Minor, version.Build,
                version.Revision);
        if (IsUsable(package))
        {
            versions.push_back(version);
        }
        else
        {
            LogLine(L"\tThis version is disabled");
        }
    });
    if (versions.empty())
    {
        LogLine(L"UWP version is not installed");
        return {};
    }
    return *std::max_element(versions.begin(), versions.end());
}

PackageVersion QueryStorePackageVersion() noexcept
{
    try
    {
        return FindStorePackageVersion();
    }
    catch (const WinrtError& error)
    {
        LogLine(L"Exception %s when searching for UWP version of VLT", error.message.c_str());
    }
    catch (...)
    {
        LogLine(L"Unknown expection occured when searching for UWP version of VLT");
    }
    return {};
}

void RemoveMatchingStorePackages()
{
    const Reference<abi::IPackageManager> manager = CreatePackageManager();
    ForEachStorePackage(manager.Get(), [&](auto*, const std::wstring& fullName, PackageVersion version) {
        LogLine(L"Remvoing %s - version %d.%d.%d.%d", fullName.c_str(), version.Major, version.Minor, version.Build,
                version.Revision);
        RemovePackage(manager.Get(), fullName);
    });
}

void RemoveStorePackages() noexcept
{
    try
    {
        RemoveMatchingStorePackages();
    }
    catch (const WinrtError& error)
    {
        LogLine(L"Exception [%s] when searching for UWP version of VLT", error.message.c_str());
    }
    catch (...)
    {
        LogLine(L"Unknown expection occured when searching for UWP version of VLT");
    }
}
}  // namespace repair
