// Replaces a system function for the code of this program, at the program's own import table.
//
// The program under test is linked with the product's library, so calls of the product go through the same table.
//     IMPORTED(GetExitCodeProcess)
//     ImportPatch patch(&__imp_GetExitCodeProcess, &FailingGetExitCodeProcess);
// A replacement that wants the original of a delay-loaded DLL must look it up itself (GetProcAddress): the
// original slot content is a stub that overwrites the slot.
#pragma once

#include <windows.h>

// Declares the import slot of a function, static or delay-loaded. At namespace scope, outside of all namespaces.
#define IMPORTED(function) extern "C" void* __imp_##function;  // NOLINT: the linker's own name

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
    ImportPatch(ImportPatch&&) = delete;
    ImportPatch& operator=(ImportPatch&&) = delete;

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
