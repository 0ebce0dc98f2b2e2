// The names of an INF's sections, read by the tool's own function, beside reading the file once.
//   inf_names.exe ROUNDS FILE
// Prints a line with the number of names, the most memory that was allocated at a time and the depth of the stack, both
// in bytes, then one line for each round: microseconds of the function and of reading the file.
#include "stopwatch.h"

#include <windows.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <new>

#include "inventory/inf_release.h"

namespace
{
bool isCounting = false;  // never while time is measured
size_t allocated = 0;
size_t mostAllocated = 0;

void Forget(void* memory)
{
    if (isCounting && memory != nullptr)
    {
        allocated -= _msize(memory);
    }
    std::free(memory);
}
}  // namespace

void* operator new(size_t size)
{
    void* const memory = std::malloc(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    if (isCounting)
    {
        allocated += _msize(memory);
        mostAllocated = allocated > mostAllocated ? allocated : mostAllocated;
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    Forget(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    Forget(memory);
}

namespace
{
constexpr DWORD kBlockBytes = 65'536;
constexpr size_t kPaintedBytes = 512 * 1024;
constexpr size_t kOwnFrameBytes = 1024;
constexpr unsigned char kPaint = 0xA5;
constexpr DWORD kStackBytes = 1024 * 1024;

struct Measured
{
    std::wstring file;
    size_t names = 0;
    size_t memory = 0;
    size_t stack = 0;
};

// Runs on a thread of its own with an unused stack. On this system the memory below a function's frame is free, so it
// can be painted; afterwards it shows how deep the calls went.
DWORD WINAPI MeasureMemory(void* parameter)
{
    Measured& measured = *static_cast<Measured*>(parameter);
    volatile unsigned char* const top = static_cast<unsigned char*>(__builtin_frame_address(0)) - kOwnFrameBytes;
    for (size_t i = 0; i < kPaintedBytes; ++i)
    {
        top[-static_cast<ptrdiff_t>(i)] = kPaint;
    }
    isCounting = true;
    {
        const auto names = repair::ReadInfSectionNames(measured.file);
        measured.names = names.size();
    }
    isCounting = false;
    measured.memory = mostAllocated;
    size_t deepest = kPaintedBytes;
    while (deepest > 0 && top[1 - static_cast<ptrdiff_t>(deepest)] == kPaint)
    {
        --deepest;
    }
    measured.stack = deepest + kOwnFrameBytes;
    return 0;
}

void ReadOnce(const std::wstring& path)
{
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    const auto block = std::make_unique<char[]>(kBlockBytes);
    DWORD read = 0;
    while (ReadFile(file, block.get(), kBlockBytes, &read, nullptr) != 0 && read != 0)
    {
    }
    CloseHandle(file);
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    if (count != 3)
    {
        return 2;
    }
    Measured measured;
    measured.file = arguments[2];
    const HANDLE thread = CreateThread(nullptr, kStackBytes, MeasureMemory, &measured, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    std::printf("%zu %zu %zu\n", measured.names, measured.memory, measured.stack);
    const unsigned long rounds = std::wcstoul(arguments[1], nullptr, 10);
    for (unsigned long round = 0; round < rounds; ++round)
    {
        const double start = bench::Microseconds();
        const size_t names = repair::ReadInfSectionNames(measured.file).size();
        const double middle = bench::Microseconds();
        ReadOnce(measured.file);
        const double end = bench::Microseconds();
        if (names != measured.names)
        {
            return 1;
        }
        std::printf("%.1f %.1f\n", middle - start, end - middle);
    }
    return 0;
}
