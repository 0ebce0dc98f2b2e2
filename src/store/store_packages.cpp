#include "store/store_packages.h"

#include <algorithm>
#include <atomic>
#include <tuple>
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
    abi::IActivationFactory* const factory = CachedFactory(packageManagerFactory, abi::kPackageManagerClass);
    abi::IInspectable* instance = nullptr;
    const HRESULT code = factory->ActivateInstance(&instance);
    const Reference<abi::IInspectable> owner = TakeObject(code, instance);
    return QueryFor<abi::IPackageManager>(owner.Get());
}

// Calls `visit(package, fullName)` for every package of all users. What one package fails with is logged with its name
// as far as it was read, and the enumeration goes on; the enumeration's own errors are thrown.
template <typename Visit>
void ForEachPackage(abi::IPackageManager* manager, Visit visit)
{
    abi::IPackageIterable* found = nullptr;
    const HRESULT findCode = manager->FindPackages(&found);
    const Reference<abi::IPackageIterable> packages = TakeObject(findCode, found);
    abi::IPackageIterator* first = nullptr;
    const HRESULT firstCode = packages.Get()->First(&first);
    const Reference<abi::IPackageIterator> iterator = TakeObject(firstCode, first);

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
            visit(package.Get(), fullName);
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

Reference<abi::IPackageId> GetPackageId(abi::IPackage* package)
{
    if (package == nullptr)
    {
        ThrowWinrtError(E_POINTER);
    }
    abi::IPackageId* id = nullptr;
    const HRESULT code = package->get_Id(&id);
    return TakeObject(code, id);
}

std::wstring GetFullName(abi::IPackageId* id)
{
    abi::HString text = nullptr;
    const HRESULT code = id->get_FullName(&text);
    const HStringOwner owner(text);
    CheckResult(code);
    return ToWide(text);
}

PackageVersion GetVersion(abi::IPackageId* id)
{
    PackageVersion version;
    CheckResult(id->get_Version(&version));
    return version;
}

bool IsUsable(abi::IPackage* package)
{
    const Reference<abi::IPackage3> package3 = QueryFor<abi::IPackage3>(package);
    abi::IPackageStatus* found = nullptr;
    const HRESULT code = package3.Get()->get_Status(&found);
    const Reference<abi::IPackageStatus> status = TakeObject(code, found);
    abi::Boolean isOk = 0;
    CheckResult(status.Get()->VerifyIsOK(&isOk));
    return isOk != 0;
}

bool IsLower(const PackageVersion& a, const PackageVersion& b)
{
    return std::tie(a.Major, a.Minor, a.Build, a.Revision) < std::tie(b.Major, b.Minor, b.Build, b.Revision);
}

void RemovePackage(abi::IPackageManager* manager, const std::wstring& fullName)
{
    const Reference<abi::IPackageManager2> manager2 = QueryFor<abi::IPackageManager2>(manager);
    const HStringOwner name = MakeHString(fullName);
    abi::IAsyncOperation<abi::Deployment>* started = nullptr;
    const HRESULT code = manager2.Get()->RemovePackageWithOptionsAsync(name.Get(), abi::kRemoveForAllUsers, &started);
    const Reference<abi::IAsyncOperation<abi::Deployment>> operation = TakeObject(code, started);
    const Reference<abi::IDeploymentResult> result = WaitForAsync(operation.Get());

    HRESULT extendedError = S_OK;
    CheckResult(result.Get()->get_ExtendedErrorCode(&extendedError));
    abi::HString text = nullptr;
    const HRESULT textCode = result.Get()->get_ErrorText(&text);
    const HStringOwner owner(text);
    CheckResult(textCode);
    LogLine(L"\t Result = %d %s", extendedError, ToWide(text).c_str());
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
    ForEachPackage(manager.Get(), [&versions](abi::IPackage* package, std::wstring& fullName) {
        const Reference<abi::IPackageId> id = GetPackageId(package);
        fullName = GetFullName(id.Get());
        if (!MatchesStorePackage(fullName))
        {
            return;
        }
        const PackageVersion version = GetVersion(id.Get());
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
    return *std::max_element(versions.begin(), versions.end(), IsLower);
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
    ForEachPackage(manager.Get(), [&manager](abi::IPackage* package, std::wstring& fullName) {
        const Reference<abi::IPackageId> id = GetPackageId(package);
        fullName = GetFullName(id.Get());
        if (!MatchesStorePackage(fullName))
        {
            return;
        }
        const PackageVersion version = GetVersion(id.Get());
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
