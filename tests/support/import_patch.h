// Replaces a system function for the code of this program, at the program's own import table.
//
// The program under test is linked with the product's library, so calls of the product go through the same table.
//     IMPORTED(GetExitCodeProcess)
//     ImportPatch patch(&__imp_GetExitCodeProcess, &FailingGetExitCodeProcess);
// A replacement that wants the original of a delay-loaded DLL must look it up itself (GetProcAddress): the
// original slot content is a stub that overwrites the slot.
#pragma once

#include <windows.h>

// IMPORTED(FUNCTION, ...) declares the import slots of functions, static or delay-loaded. At namespace scope, outside
// of all namespaces.
#define IMPORTED(...) __VA_OPT__(IMPORTED_EXPAND(IMPORTED_EACH(__VA_ARGS__)))
#define IMPORTED_EACH(function, ...)                               \
    extern "C" void* __imp_##function; /* the linker's own name */ \
    __VA_OPT__(IMPORTED_AGAIN IMPORTED_NONE(__VA_ARGS__))
#define IMPORTED_AGAIN() IMPORTED_EACH
#define IMPORTED_NONE ()
// Each expansion takes one more name; 25 are enough.
#define IMPORTED_EXPAND(...) IMPORTED_FIVE(IMPORTED_FIVE(IMPORTED_FIVE(IMPORTED_FIVE(IMPORTED_FIVE(__VA_ARGS__)))))
#define IMPORTED_FIVE(...) IMPORTED_ONE(IMPORTED_ONE(IMPORTED_ONE(IMPORTED_ONE(IMPORTED_ONE(__VA_ARGS__)))))
#define IMPORTED_ONE(...) __VA_ARGS__

namespace repair
{
class ImportPatch
{
public:
    template <typename Function>
    ImportPatch(void** slot, Function* replacement) : slot_(slot), original_(*slot)
    {
        Write(reinterpret_cast<void*>(replacement));
    }
    ~ImportPatch() { Write(original_); }
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    // The function that was there before; right for statically imported DLLs.
    void* Original() const { return original_; }

private:
    void Write(void* value)
    {
        DWORD protection = 0;
        VirtualProtect(slot_, sizeof(*slot_), PAGE_READWRITE, &protection);
        *slot_ = value;
        VirtualProtect(slot_, sizeof(*slot_), protection, &protection);
    }

    void** slot_;
    void* original_;
};
}  // namespace repair
