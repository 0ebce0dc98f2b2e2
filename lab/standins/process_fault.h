// Faults of the whole process, for fault rules.
#pragma once
#include <windows.h>

namespace standin
{
// Raises this exception in the caller; 0xC0000005 by a real write to an invalid address.
[[noreturn]] void Crash(DWORD code);

// From now on the process gets no further address space, only the rest of its heap.
void RefuseMemory();
}  // namespace standin
