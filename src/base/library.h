// Functions that are looked up at run time, because not every Windows has them or start-up should not wait for them.
#pragma once

#include <windows.h>

namespace repair
{
// Null when there is no library or it lacks the function. `Function` is the pointer type.
template <typename Function>
Function LookUpFunction(HMODULE library, const char* name)
{
    return library == nullptr ? nullptr
                              : reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}
}  // namespace repair
