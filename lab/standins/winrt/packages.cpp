#include "packages.h"

#include <utility>

#include "lab_file.h"
#include "machine.h"
#include "object.h"
#include "strings.h"

namespace lab
{
namespace
{
constexpr HRESULT kOutOfBounds = static_cast<HRESULT>(0x8000000B);

// The end of a getter: fails as the case says, gives null as it says, or lets `give` hand out the value.
template <class Value, class Give>
HRESULT Get(const PackageScript& package, const std::wstring& method, Value** value, Give give)
{
    HRESULT result = S_OK;
    const auto failure = package.failures.find(method);
    if (failure != package.failures.end())
        result = failure->second.Apply();
    else if (package.nulls.contains(method))
        *value = nullptr;
    else
        result = give();
    return Record(method + L" " + standin::Quoted(package.name), result);
}

class PackageId final : public Object<abi::IPackageId>
{
public:
    explicit PackageId(PackageScript package) : Object(L"PackageId"), package_(std::move(package)) {}

    HRESULT STDMETHODCALLTYPE get_Version(abi::PackageVersion* version) override
    {
        void* unused = nullptr;
        return Get(package_, L"get_Version", &unused, [&] {
            *version = package_.version;
            return S_OK;
        });
    }

    HRESULT STDMETHODCALLTYPE get_FullName(HSTRING* name) override
    {
        return Get(package_, L"get_FullName", name, [&] {
            *name = nullptr;
            return package_.hasName ? GiveString(package_.name, name) : S_OK;
        });
    }

private:
    PackageScript package_;
};

class PackageStatus final : public Object<abi::IPackageStatus>
{
public:
    explicit PackageStatus(PackageScript package) : Object(L"PackageStatus"), package_(std::move(package)) {}

    HRESULT STDMETHODCALLTYPE VerifyIsOK(boolean* isOk) override
    {
        void* unused = nullptr;
        return Get(package_, L"VerifyIsOK", &unused, [&] {
            *isOk = package_.isOk ? TRUE : FALSE;
            return S_OK;
        });
    }

private:
    PackageScript package_;
};

class Package final : public Object<abi::IPackage, abi::IPackage3>
{
public:
    explicit Package(PackageScript package) : Object(L"Package"), package_(std::move(package)) {}

    HRESULT STDMETHODCALLTYPE get_Id(abi::IPackageId** id) override
    {
        return Get(package_, L"get_Id", id, [&] {
            *id = new PackageId(package_);
            return S_OK;
        });
    }

    HRESULT STDMETHODCALLTYPE get_Status(abi::IPackageStatus** status) override
    {
        return Get(package_, L"get_Status", status, [&] {
            *status = new PackageStatus(package_);
            return S_OK;
        });
    }

protected:
    HRESULT Refuse(const GUID& iid) override
    {
        const auto failure = package_.failures.find(L"IPackage3");
        return IsEqualGUID(iid, abi::IPackage3::kIid) && failure != package_.failures.end() ? failure->second.Apply()
                                                                                            : S_OK;
    }

private:
    PackageScript package_;
};

class PackageIterator final : public Object<abi::IPackageIterator>
{
public:
    explicit PackageIterator(std::vector<PackageScript> packages)
        : Object(L"PackageIterator"), packages_(std::move(packages))
    {
    }

    HRESULT STDMETHODCALLTYPE get_Current(abi::IPackage** current) override
    {
        ++currentCalls_;
        if (currentCalls_ == TheScript().manager.current.call)
            return Record(L"get_Current", TheScript().manager.current.outcome.Apply());
        if (position_ >= packages_.size())
            return Record(L"get_Current", kOutOfBounds);
        const PackageScript& package = packages_[position_];
        *current = package.nulls.contains(L"package") ? nullptr : new Package(package);
        return Record(L"get_Current " + standin::Quoted(package.name), S_OK);
    }

    HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* hasCurrent) override
    {
        *hasCurrent = position_ < packages_.size() ? TRUE : FALSE;
        return Record(L"get_HasCurrent", S_OK);
    }

    HRESULT STDMETHODCALLTYPE MoveNext(boolean* hasCurrent) override
    {
        ++moves_;
        if (moves_ == TheScript().manager.next.call)
            return Record(L"MoveNext", TheScript().manager.next.outcome.Apply());
        if (position_ < packages_.size())
            ++position_;
        *hasCurrent = position_ < packages_.size() ? TRUE : FALSE;
        return Record(L"MoveNext", S_OK);
    }

private:
    std::vector<PackageScript> packages_;
    std::size_t position_ = 0;
    unsigned moves_ = 0;
    unsigned currentCalls_ = 0;
};

class PackageList final : public Object<abi::IPackageIterable>
{
public:
    explicit PackageList(std::vector<PackageScript> packages) : Object(L"PackageList"), packages_(std::move(packages))
    {
    }

    HRESULT STDMETHODCALLTYPE First(abi::IPackageIterator** iterator) override
    {
        const Outcome& outcome = TheScript().manager.first;
        if (FAILED(outcome.result))
            return Record(L"First", outcome.Apply());
        *iterator = outcome.isNull ? nullptr : new PackageIterator(packages_);
        return Record(L"First", S_OK);
    }

private:
    std::vector<PackageScript> packages_;
};
}  // namespace

abi::IPackageIterable* NewPackageList(std::vector<PackageScript> packages)
{
    return new PackageList(std::move(packages));
}
}  // namespace lab
