#include "process_fault.h"

#include <cstdint>

namespace standin
{
namespace
{
// Numbers of the host's kernel, whose limits hold for Wine's processes.
constexpr std::uintptr_t kSetLimitCall = 302;
constexpr std::uintptr_t kAddressSpaceLimit = 9;

struct Limit
{
    std::uint64_t now;
    std::uint64_t most;
};
}  // namespace

[[noreturn]] void Crash(DWORD code)
{
    volatile UINT_PTR nowhere = 8;
    if (code == EXCEPTION_ACCESS_VIOLATION)
    {
        *reinterpret_cast<volatile int*>(nowhere) = 0;
    }
    for (;;)
    {
        RaiseException(code, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    }
}

// A limit of the host, because Wine enforces none itself. It must be 0: space that Wine has reserved counts as used.
void RefuseMemory()
{
    const Limit limit{0, 0};
    std::uintptr_t result = kSetLimitCall;
    asm volatile("xorl %%r10d, %%r10d\n\tsyscall"
                 : "+a"(result)
                 : "D"(std::uintptr_t{0}), "S"(kAddressSpaceLimit), "d"(&limit)
                 : "rcx", "r10", "r11", "memory");
    if (result != 0)
    {
        TerminateProcess(GetCurrentProcess(), ERROR_CALL_NOT_IMPLEMENTED);
    }
}
}  // namespace standin
