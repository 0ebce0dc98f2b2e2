// What a fault rule does to the whole process, beyond a call that fails.
#pragma once
#include <windows.h>

namespace standin
{
// Raises this exception where the caller stands. 0xC0000005 comes from a real write to where nothing is.
[[noreturn]] void Crash(DWORD code);

// From now on the process gets no further address space: what its heap has left is all there is.
void RefuseMemory();
}  // namespace standin
