#include <utility>

#include "classes.h"
#include "lab_file.h"
#include "object.h"

namespace lab
{
namespace
{
constexpr HRESULT kOutOfBounds = static_cast<HRESULT>(0x8000000B);

// An object of one package; its calls are recorded with the package's name.
template <class... Interfaces>
class PackageObject : public Object<Interfaces...>
{
public:
    PackageObject(const wchar_t* className, const PackageScript& package)
        : Object<Interfaces...>(className, package.answers), package_(package)
    {
    }

protected:
    template <class Value, class Make>
    HRESULT GiveOwn(const std::wstring& method, Value* value, Make make)
    {
        return this->Give(method, method + L" " + standin::Quoted(package_.name), value, make);
    }

    PackageScript package_;
};

class PackageId final : public PackageObject<abi::IPackageId>
{
public:
    using PackageObject::PackageObject;

    HRESULT STDMETHODCALLTYPE get_Version(abi::PackageVersion* version) override
    {
        return GiveOwn(L"get_Version", version, [&] { return package_.version; });
    }

    HRESULT STDMETHODCALLTYPE get_FullName(HSTRING* name) override
    {
        return GiveOwn(L"get_FullName", name, [&] { return package_.hasName ? NewString(package_.name) : nullptr; });
    }
};

class PackageStatus final : public PackageObject<abi::IPackageStatus>
{
public:
    using PackageObject::PackageObject;

    HRESULT STDMETHODCALLTYPE VerifyIsOK(boolean* isOk) override
    {
        return GiveOwn(L"VerifyIsOK", isOk, [&] { return static_cast<boolean>(package_.isOk ? TRUE : FALSE); });
    }
};

class Package final : public PackageObject<abi::IPackage, abi::IPackage3>
{
public:
    using PackageObject::PackageObject;

    HRESULT STDMETHODCALLTYPE get_Id(abi::IPackageId** id) override
    {
        return GiveOwn(L"get_Id", id, [&] { return new PackageId(L"PackageId", package_); });
    }

    HRESULT STDMETHODCALLTYPE get_Status(abi::IPackageStatus** status) override
    {
        return GiveOwn(L"get_Status", status, [&] { return new PackageStatus(L"PackageStatus", package_); });
    }
};

class PackageIterator final : public Object<abi::IPackageIterator>
{
public:
    explicit PackageIterator(std::vector<PackageScript> packages)
        : Object(L"PackageIterator", TheScript().manager.answers), packages_(std::move(packages))
    {
    }

    HRESULT STDMETHODCALLTYPE get_Current(abi::IPackage** current) override
    {
        if (position_ >= packages_.size())
        {
            return Record(L"get_Current", kOutOfBounds);
        }
        const PackageScript& package = packages_[position_];
        return Give(L"get_Current", L"get_Current " + standin::Quoted(package.name), current,
                    [&] { return package.answers.contains(L"package") ? nullptr : new Package(L"Package", package); });
    }

    HRESULT STDMETHODCALLTYPE get_HasCurrent(boolean* hasCurrent) override
    {
        return Give(L"get_HasCurrent", L"get_HasCurrent", hasCurrent, [&] { return HasCurrent(); });
    }

    HRESULT STDMETHODCALLTYPE MoveNext(boolean* hasCurrent) override
    {
        return Give(L"MoveNext", L"MoveNext", hasCurrent, [&] {
            position_ += HasCurrent();
            return HasCurrent();
        });
    }

private:
    boolean HasCurrent() const { return position_ < packages_.size() ? TRUE : FALSE; }

    std::vector<PackageScript> packages_;
    std::size_t position_ = 0;
};

class PackageList final : public Object<abi::IPackageIterable>
{
public:
    explicit PackageList(std::vector<PackageScript> packages)
        : Object(L"PackageList", TheScript().manager.answers), packages_(std::move(packages))
    {
    }

    HRESULT STDMETHODCALLTYPE First(abi::IPackageIterator** iterator) override
    {
        return Give(L"First", L"First", iterator, [&] { return new PackageIterator(packages_); });
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
