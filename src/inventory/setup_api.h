// SetupAPI, with the function that mingw has in its library but not in its header.
#pragma once

#include <windows.h>
#include <setupapi.h>

#if defined(__MINGW32__)
extern "C" WINSETUPAPI BOOL WINAPI SetupGetInfDriverStoreLocationW(PCWSTR infPath, PSP_ALTPLATFORM_INFO platform,
                                                                   PCWSTR locale, PWSTR path, DWORD characters,
                                                                   PDWORD needed);
#endif
