// What the loader reads before it loads the first DLL. The linker has no switch for it: tools/load_configuration.py
// enters this structure into the header of each program that ships.
#include <windows.h>

namespace
{
constexpr IMAGE_LOAD_CONFIG_DIRECTORY64 MakeLoadConfiguration()
{
    IMAGE_LOAD_CONFIG_DIRECTORY64 made = {};
    made.Size = sizeof(made);
    // DependentLoadFlags since Windows 10 1607, older versions ignore it: DLLs named in the import table come from
    // system32 only.
    made.Reserved1 = LOAD_LIBRARY_SEARCH_SYSTEM32;
    return made;
}
}  // namespace

extern "C" constexpr IMAGE_LOAD_CONFIG_DIRECTORY64 kLoadConfiguration = MakeLoadConfiguration();
