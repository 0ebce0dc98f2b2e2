// Stand-in for the system's package manager and Store context, which Wine does not have.
#include <windows.h>
#include <objbase.h>

#include "classes.h"
#include "object.h"

namespace lab
{
namespace
{
// Other DLLs and threads of the component may still call into it.
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
}  // namespace lab

extern "C" __declspec(dllexport) HRESULT WINAPI
    DllGetActivationFactory(HSTRING classId, winrt_abi::IActivationFactory** factory)
{
    using namespace lab;
    StayLoaded();
    const std::wstring name = TextOf(classId);
    *factory = nullptr;
    HRESULT result = CLASS_E_CLASSNOTAVAILABLE;
    if (name == abi::kPackageManagerClass)
    {
        result = Activate(TheScript().manager, NewPackageManagerFactory, factory);
    }
    else if (name == abi::kStoreContextClass)
    {
        result = Activate(TheScript().store, NewStoreContextFactory, factory);
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
