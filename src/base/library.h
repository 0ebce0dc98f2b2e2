// Functions that are looked up at run time: not every Windows has them, or loading their library would delay the start.
#pragma once

#include <windows.h>

namespace repair
{
// Returns null without a library or if it lacks the function. `Function` is the pointer type.
template <typename Function>
Function LookUpFunction(HMODULE library, const char* name)
{
    return library == nullptr ? nullptr
                              : reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}
}  // namespace repair
