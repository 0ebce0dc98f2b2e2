// Stand-in for the system's package manager and Store context, which Wine does not have.
#include <windows.h>

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
}  // namespace
}  // namespace lab

using winrt_abi::IActivationFactory;
extern "C" __declspec(dllexport) HRESULT WINAPI DllGetActivationFactory(HSTRING classId, IActivationFactory** factory)
{
    lab::StayLoaded();
    return lab::GetFactory(lab::TextOf(classId), factory);
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
