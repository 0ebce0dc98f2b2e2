// The facts as facts.toml has them; facts.cpp is made from it by the build.
#pragma once

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
};

const std::vector<Fact>& AllFacts();
}  // namespace windows_check
