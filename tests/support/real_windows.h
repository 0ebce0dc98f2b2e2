// For tests that are skipped on a real Windows: they expect something that only Wine does, or need something that only
// a lab machine has. The reason is shown, and they count as skipped.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

namespace repair
{
// True when the tests run on Wine. The variable TAVIK_TESTS_AS_ON_WINDOWS (any value) makes them skip as on Windows, so
// that this can be tried on Wine as well.
inline bool RunsOnWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr &&
           GetEnvironmentVariableW(L"TAVIK_TESTS_AS_ON_WINDOWS", nullptr, 0) == 0;
}
}  // namespace repair

// First line of a test that shows something on Wine only.
#define ONLY_ON_WINE(reason)                                 \
    if (!repair::RunsOnWine())                               \
    {                                                        \
        GTEST_SKIP() << "shows nothing on Windows: " reason; \
    }                                                        \
    static_assert(true, "asks for a semicolon")
