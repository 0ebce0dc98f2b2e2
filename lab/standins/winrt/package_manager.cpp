#include "classes.h"

#include <algorithm>
#include <optional>

#include "lab_file.h"
#include "machine.h"
#include "object.h"
#include "operation.h"
#include "packages.h"
#include "strings.h"

namespace lab
{
namespace
{
constexpr UINT32 kRemoveForAllUsers = 0x80000;

// A failure of this method that the case asks for.
const Outcome* FailureOf(const PackageScript& package, const std::wstring& method)
{
    const auto found = package.failures.find(method);
    return found == package.failures.end() ? nullptr : &found->second;
}

class DeploymentResult final : public Object<abi::IDeploymentResult>
{
public:
    explicit DeploymentResult(const PackageScript& package) : Object(L"DeploymentResult"), package_(package) {}

    HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) override
    {
        *text = nullptr;
        if (const Outcome* failure = FailureOf(package_, L"get_ErrorText"))
            return Record(L"get_ErrorText", failure->Apply());
        const bool isNull = package_.nulls.contains(L"get_ErrorText");
        return Record(L"get_ErrorText", isNull ? S_OK : GiveString(package_.removal.description, text));
    }

    HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* code) override
    {
        if (const Outcome* failure = FailureOf(package_, L"get_ExtendedErrorCode"))
            return Record(L"get_ExtendedErrorCode", failure->Apply());
        *code = package_.removal.result;
        return Record(L"get_ExtendedErrorCode", S_OK);
    }

private:
    PackageScript package_;
};

OperationPlan RemovalPlan(const PackageScript& package, UINT32 options)
{
    OperationPlan plan;
    plan.completion = package.completion;
    plan.ending = package.removalEnd;
    if (const Outcome* failure = FailureOf(package, L"put_Completed"))
        plan.putCompleted = *failure;
    plan.finish = [package, options](abi::AsyncStatus status) {
        const bool isReached = package.user.empty() || (options & kRemoveForAllUsers) != 0;
        if (status == abi::kCompleted && package.removal.result == S_OK && !package.stays && isReached)
            RemovePackage(package);
    };
    plan.results = [package](abi::IInspectable** result) {
        if (const Outcome* failure = FailureOf(package, L"GetResults"))
            return failure->Apply();
        *result = package.nulls.contains(L"GetResults") ? nullptr : new DeploymentResult(package);
        return S_OK;
    };
    return plan;
}

class PackageManager final : public Object<abi::IPackageManager, abi::IPackageManager2>
{
public:
    PackageManager() : Object(kPackageManagerClass) {}

    HRESULT STDMETHODCALLTYPE FindPackages(abi::IPackageIterable** packages) override
    {
        const Outcome& outcome = TheScript().manager.find;
        if (FAILED(outcome.result))
            return Record(L"FindPackages", outcome.Apply());
        *packages = outcome.isNull ? nullptr : NewPackageList(InstalledPackages());
        return Record(L"FindPackages", S_OK);
    }

    HRESULT STDMETHODCALLTYPE RemovePackageWithOptionsAsync(HSTRING fullName, UINT32 options,
                                                            abi::IDeploymentOperation** operation) override
    {
        const std::wstring name = TextOf(fullName);
        const std::optional<PackageScript> package = Installed(name);
        const std::wstring what =
            L"RemovePackageWithOptionsAsync name=" + standin::Quoted(name) + L"; options=" + standin::Hex(options) +
            (package && !package->user.empty() ? L"; user=" + standin::Quoted(package->user) : L"");
        if (!package)
            return Record(what, HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
        if (const Outcome* failure = FailureOf(*package, L"RemovePackageAsync"))
            return Record(what, failure->Apply());
        Record(what, S_OK);
        const bool isNull = package->nulls.contains(L"RemovePackageAsync");
        *operation = isNull ? nullptr
                            : Operation<abi::IDeploymentOperation>::Start(L"DeploymentOperation",
                                                                          RemovalPlan(*package, options));
        return S_OK;
    }

private:
    static std::optional<PackageScript> Installed(const std::wstring& name)
    {
        for (const PackageScript& package : InstalledPackages())
        {
            if (package.hasName ? package.name == name : name.empty())
                return package;
        }
        return std::nullopt;
    }
};

class PackageManagerFactory final : public Object<abi::IActivationFactory, abi::IAgileObject>
{
public:
    PackageManagerFactory() : Object(L"PackageManagerFactory") {}

    HRESULT STDMETHODCALLTYPE ActivateInstance(abi::IInspectable** instance) override
    {
        const Outcome& outcome = TheScript().manager.create;
        if (FAILED(outcome.result))
            return Record(L"ActivateInstance PackageManager", outcome.Apply());
        *instance = outcome.isNull ? nullptr : static_cast<abi::IPackageManager*>(new PackageManager);
        return Record(L"ActivateInstance PackageManager", S_OK);
    }
};
}  // namespace

abi::IActivationFactory* NewPackageManagerFactory()
{
    return new PackageManagerFactory;
}
}  // namespace lab
