#include <windows.h>
#include <objbase.h>

#include "classes.h"
#include "record.h"

namespace lab
{
namespace
{
bool HasApartment()
{
    APTTYPE type{};
    APTTYPEQUALIFIER qualifier{};
    return SUCCEEDED(CoGetApartmentType(&type, &qualifier));
}

HRESULT Activate(const ClassScript& script, abi::IActivationFactory* (*create)(), abi::IActivationFactory** factory)
{
    if (TheScript().isBad)
    {
        return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    }
    if (script.needsApartment && !HasApartment())
    {
        return CO_E_NOTINITIALIZED;
    }
    const auto answer = script.answers.find(L"activation");
    if (answer != script.answers.end())
    {
        return answer->second.Give();
    }
    *factory = create();
    return S_OK;
}
}  // namespace

HRESULT GetFactory(const std::wstring& className, abi::IActivationFactory** factory)
{
    *factory = nullptr;
    HRESULT result = CLASS_E_CLASSNOTAVAILABLE;
    if (className == abi::kPackageManagerClass)
    {
        result = Activate(TheScript().manager, NewPackageManagerFactory, factory);
    }
    else if (className == abi::kStoreContextClass)
    {
        result = Activate(TheScript().store, NewStoreContextFactory, factory);
    }
    return Record(L"DllGetActivationFactory " + className, result);
}
}  // namespace lab
