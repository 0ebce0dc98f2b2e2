// Where packages lie in the driver store, from C:\lab\standins\driverstore.txt: <published INF> TAB <path>.
#pragma once
#include <windows.h>

namespace standin
{
// Returns what SetupGetInfDriverStoreLocationW returns, with its last error. The file is read once.
BOOL LocateInDriverStore(const wchar_t* inf, wchar_t* buffer, DWORD size, DWORD* required);
}  // namespace standin
