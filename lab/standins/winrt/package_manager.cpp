#include <algorithm>
#include <optional>

#include "classes.h"
#include "lab_file.h"
#include "operation.h"

namespace lab
{
namespace
{
constexpr UINT32 kRemoveForAllUsers = 0x80000;

class DeploymentResult final : public Object<abi::IDeploymentResult>
{
public:
    explicit DeploymentResult(const PackageScript& package)
        : Object(L"DeploymentResult", package.answers), removal_(package.removal)
    {
    }

    HRESULT STDMETHODCALLTYPE get_ErrorText(HSTRING* text) override
    {
        return Give(L"get_ErrorText", L"get_ErrorText", text, [&] { return NewString(removal_.description); });
    }

    HRESULT STDMETHODCALLTYPE get_ExtendedErrorCode(HRESULT* code) override
    {
        return Give(L"get_ExtendedErrorCode", L"get_ExtendedErrorCode", code, [&] { return removal_.result; });
    }

private:
    Answer removal_;
};

OperationPlan RemovalPlan(const PackageScript& package, UINT32 options)
{
    OperationPlan plan{package.answers, package.completion, package.end, {}, {}};
    plan.finish = [package, options](abi::AsyncStatus status) {
        const bool isReached = package.user.empty() || (options & kRemoveForAllUsers) != 0;
        if (status == abi::kCompleted && package.removal.result == S_OK && isReached)
        {
            RemovePackage(package);
        }
    };
    plan.newResult = [package] { return new DeploymentResult(package); };
    return plan;
}

std::optional<PackageScript> Installed(const std::wstring& name)
{
    for (const PackageScript& package : InstalledPackages())
    {
        if (package.hasName ? package.name == name : name.empty())
        {
            return package;
        }
    }
    return std::nullopt;
}

class PackageManager final : public Object<abi::IPackageManager, abi::IPackageManager2>
{
public:
    PackageManager() : Object(abi::kPackageManagerClass, TheScript().manager.answers) {}

    HRESULT STDMETHODCALLTYPE FindPackages(abi::IPackageIterable** packages) override
    {
        return Give(L"FindPackages", L"FindPackages", packages, [] { return NewPackageList(InstalledPackages()); });
    }

    HRESULT STDMETHODCALLTYPE RemovePackageWithOptionsAsync(HSTRING fullName, UINT32 options,
                                                            abi::IDeploymentOperation** operation) override
    {
        *operation = nullptr;
        const std::wstring name = TextOf(fullName);
        const std::optional<PackageScript> package = Installed(name);
        std::wstring what =
            L"RemovePackageWithOptionsAsync name=" + standin::Quoted(name) + L"; options=" + standin::Hex(options);
        if (!package)
        {
            return Record(what, HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
        }
        what += package->user.empty() ? L"" : L"; user=" + standin::Quoted(package->user);
        const auto answer = package->answers.find(L"RemovePackageAsync");
        if (answer != package->answers.end())
        {
            return Record(what, answer->second.Give());
        }
        Record(what, S_OK);  // before the operation records its own lines
        *operation = NewRemoval(*package, options);
        return S_OK;
    }
};

class PackageManagerFactory final : public Object<abi::IActivationFactory, abi::IAgileObject>
{
public:
    PackageManagerFactory() : Object(L"PackageManagerFactory", TheScript().manager.answers) {}

    HRESULT STDMETHODCALLTYPE ActivateInstance(abi::IInspectable** instance) override
    {
        return Give(L"ActivateInstance", L"ActivateInstance PackageManager", instance,
                    [] { return static_cast<abi::IPackageManager*>(new PackageManager); });
    }
};
}  // namespace

abi::IDeploymentOperation* NewRemoval(const PackageScript& package, UINT32 options)
{
    return Operation<abi::IDeploymentOperation>::Start(L"DeploymentOperation", RemovalPlan(package, options));
}

abi::IActivationFactory* NewPackageManagerFactory()
{
    return new PackageManagerFactory;
}
}  // namespace lab
