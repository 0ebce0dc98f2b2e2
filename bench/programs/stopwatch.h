// The system's precise clock, for what is measured inside one process.
#pragma once

#include <windows.h>

namespace bench
{
// Microseconds since some fixed moment.
inline double Microseconds()
{
    LARGE_INTEGER frequency = {};
    LARGE_INTEGER now = {};
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * 1e6 / static_cast<double>(frequency.QuadPart);
}
}  // namespace bench
