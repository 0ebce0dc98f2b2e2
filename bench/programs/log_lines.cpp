// The tool's log beside the same calls of WriteFile.
//   log_lines.exe ROUNDS LINES
// Prints one line for each round: microseconds for LINES lines through the log, and for writing the same texts.
#include "stopwatch.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>

#include "base/log.h"

namespace
{
// A usual line: what the tool writes for each driver package.
constexpr wchar_t kFormat[] = L"Found driver %s. Version [%s]";
constexpr wchar_t kInf[] =
    L"C:\\windows\\System32\\DriverStore\\FileRepository\\u0400001.inf_amd64_1f2d3c4b5a697887\\u0400001.inf";
constexpr wchar_t kRelease[] = L"24.20.11.01-240619a";

void WriteLines(HANDLE file, const std::wstring& line, unsigned long lines)
{
    DWORD written = 0;
    for (unsigned long i = 0; i < lines; ++i)
    {
        WriteFile(file, line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written, nullptr);
        WriteFile(file, L"\n", sizeof(wchar_t), &written, nullptr);
    }
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    if (count != 3)
    {
        return 2;
    }
    const unsigned long rounds = std::wcstoul(arguments[1], nullptr, 10);
    const unsigned long lines = std::wcstoul(arguments[2], nullptr, 10);
    const std::wstring line = L"Found driver " + std::wstring(kInf) + L". Version [" + kRelease + L"]";
    const HANDLE file = CreateFileW((repair::GetLogFolder() + L"floor.log").c_str(), GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    repair::LogLine(kFormat, kInf, kRelease);  // opens the log
    for (unsigned long round = 0; round < rounds; ++round)
    {
        const double start = bench::Microseconds();
        for (unsigned long i = 0; i < lines; ++i)
        {
            repair::LogLine(kFormat, kInf, kRelease);
        }
        const double middle = bench::Microseconds();
        WriteLines(file, line, lines);
        const double end = bench::Microseconds();
        std::printf("%.1f %.1f\n", middle - start, end - middle);
    }
    return 0;
}
