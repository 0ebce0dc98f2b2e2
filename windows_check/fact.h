// The facts of facts.toml; the build makes facts.cpp from it.
#pragma once

#include <windows.h>

#include <string_view>
#include <vector>

namespace windows_check
{
struct Fact
{
    const char* id;
    const char* group;
    const wchar_t* says;
    std::vector<std::wstring_view> expected;  // each of them is fine
    DWORD limitMs;                            // a check may take so long
};

const std::vector<Fact>& AllFacts();
}  // namespace windows_check
