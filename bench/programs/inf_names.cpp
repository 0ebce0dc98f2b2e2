// The names of an INF's sections, read by the tool's own function, beside reading the file once.
//   inf_names.exe ROUNDS FILE
// Prints one line for each round: the number of names, then microseconds of the function and of reading the file.
#include "stopwatch.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <memory>

#include "inventory/inf_release.h"

namespace
{
constexpr DWORD kBlockBytes = 65'536;

void ReadOnce(const wchar_t* path)
{
    const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
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
    const unsigned long rounds = std::wcstoul(arguments[1], nullptr, 10);
    for (unsigned long round = 0; round < rounds; ++round)
    {
        const double start = bench::Microseconds();
        const size_t names = repair::ReadInfSectionNames(arguments[2]).size();
        const double middle = bench::Microseconds();
        ReadOnce(arguments[2]);
        const double end = bench::Microseconds();
        std::printf("%zu %.1f %.1f\n", names, middle - start, end - middle);
    }
    return 0;
}
