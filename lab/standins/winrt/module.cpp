// Substitute for the system's package manager and Store context, which Wine does not have.
#include <windows.h>
#include <objbase.h>

#include "classes.h"
#include "machine.h"
#include "object.h"
#include "strings.h"

namespace lab
{
namespace
{
// Other DLLs and threads of the component's own may still run through it.
void StayLoaded()
{
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<const wchar_t*>(&StayLoaded), &self);
}

bool HasApartment()
{
    APTTYPE type{};
    APTTYPEQUALIFIER qualifier{};
    return SUCCEEDED(CoGetApartmentType(&type, &qualifier));
}

HRESULT Activate(const Outcome& activation, bool needsApartment, abi::IActivationFactory* (*create)(),
                 abi::IActivationFactory** factory)
{
    if (TheScript().isBad)
        return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    if (needsApartment && !HasApartment())
        return CO_E_NOTINITIALIZED;
    if (FAILED(activation.result))
        return activation.Apply();
    *factory = activation.isNull ? nullptr : create();
    return S_OK;
}
}  // namespace
}  // namespace lab

extern "C" __declspec(dllexport) HRESULT WINAPI
    DllGetActivationFactory(HSTRING classId, lab::abi::IActivationFactory** factory)
{
    using namespace lab;
    StayLoaded();
    const std::wstring name = TextOf(classId);
    *factory = nullptr;
    HRESULT result = CLASS_E_CLASSNOTAVAILABLE;
    if (name == kPackageManagerClass)
    {
        const ManagerScript& manager = TheScript().manager;
        result = Activate(manager.activation, manager.needsApartment, NewPackageManagerFactory, factory);
    }
    else if (name == kStoreContextClass)
    {
        const StoreScript& store = TheScript().store;
        result = Activate(store.activation, store.needsApartment, NewStoreContextFactory, factory);
    }
    return Record(L"DllGetActivationFactory " + name, result);
}

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void* isProcessEnding)
{
    if (reason == DLL_PROCESS_DETACH && isProcessEnding != nullptr)
    {
        lab::RecordWhatTheProgramStillHolds();
        lab::RecordWhatIsStillHeld();
    }
    return TRUE;
}
