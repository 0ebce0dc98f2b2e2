// The functions that the compiler's stack protection needs.
//
// The toolchain's own ones load cryptography DLLs for a random number before wWinMain can restrict the library search
// path. The value only has to differ from run to run and be unknown to the author of a file that the tool reads;
// clocks, ids and addresses are enough for that.
#if defined(__MINGW32__)
#include <windows.h>

#include <cstdint>

extern "C"
{
uintptr_t __stack_chk_guard = 0x9E3779B97F4A7C15;

[[noreturn]] void __stack_chk_fail()
{
    // Ends at once without running anything on the damaged stack, like a compiler's fast fail.
    TerminateProcess(GetCurrentProcess(), 0xC0000409);
    for (;;)
    {
    }
}
}

namespace
{
// Runs before every other constructor. Not protected itself, because it changes the guard.
__attribute__((constructor(101), no_stack_protector)) void SeedStackGuard()
{
    FILETIME now = {};
    GetSystemTimeAsFileTime(&now);
    LARGE_INTEGER counter = {};
    QueryPerformanceCounter(&counter);
    uintptr_t seed = (static_cast<uintptr_t>(now.dwHighDateTime) << 32) ^ now.dwLowDateTime;
    seed ^= static_cast<uintptr_t>(counter.QuadPart) * 0xD6E8FEB86659FD93;
    seed ^= static_cast<uintptr_t>(GetCurrentProcessId()) << 40;
    seed ^= static_cast<uintptr_t>(GetCurrentThreadId()) << 8;
    seed ^= reinterpret_cast<uintptr_t>(&now);
    seed ^= seed >> 29;
    __stack_chk_guard ^= seed & ~static_cast<uintptr_t>(0xFF);  // a zero byte stops overflowing text copies
    __stack_chk_guard &= ~static_cast<uintptr_t>(0xFF);
}
}  // namespace
#endif
