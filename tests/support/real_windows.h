// For tests that are skipped on a real Windows: they expect something that only Wine does, or need something that only
// a lab machine has. The reason is shown, and they count as skipped.
#pragma once

#include <windows.h>

#include <cstdlib>

#include <gtest/gtest.h>

namespace repair
{
// 8 or 10, for example; 0 on Windows.
inline int WineVersion()
{
    const FARPROC version = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version");
    return version != nullptr ? std::atoi(reinterpret_cast<const char* (*)()>(reinterpret_cast<void (*)()>(version))())
                              : 0;
}

// True when the tests run on Wine. The variable TAVIK_TESTS_AS_ON_WINDOWS (any value) makes them skip as on Windows, so
// that this can be tried on Wine as well.
inline bool RunsOnWine()
{
    return WineVersion() != 0 && GetEnvironmentVariableW(L"TAVIK_TESTS_AS_ON_WINDOWS", nullptr, 0) == 0;
}
}  // namespace repair

// First line of a test that shows something on Wine only.
#define ONLY_ON_WINE(reason)                                 \
    if (!repair::RunsOnWine())                               \
    {                                                        \
        GTEST_SKIP() << "shows nothing on Windows: " reason; \
    }                                                        \
    static_assert(true, "asks for a semicolon")
