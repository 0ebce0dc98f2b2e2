// A setupapi.dll for measurements: Wine's own, and where a package lies in the driver store, which Wine does not know.
// It records no calls, because recording takes longer than the calls.
#include <windows.h>
#include <setupapi.h>

#include "driver_store.h"

extern "C"
{
BOOL WINAPI Lab_SetupGetInfDriverStoreLocationW(PCWSTR inf, PSP_ALTPLATFORM_INFO, PCWSTR, PWSTR buffer, DWORD size,
                                                PDWORD required)
{
    return standin::LocateInDriverStore(inf, buffer, size, required);
}
}
