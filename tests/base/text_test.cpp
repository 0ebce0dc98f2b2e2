#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "base/text.h"

namespace repair
{
namespace
{
struct Occurrence
{
    std::wstring_view haystack;
    std::wstring_view needle;
    bool occurs;
};

class TextContains : public testing::TestWithParam<Occurrence>
{
};

TEST_P(TextContains, ComparesOnlyTheLettersAToZWithoutCase)
{
    const auto& [haystack, needle, occurs] = GetParam();
    EXPECT_EQ(ContainsNoCase(std::wstring(haystack), std::wstring(needle)), occurs);
}

INSTANTIATE_TEST_SUITE_P(
    All, TextContains,
    testing::Values(Occurrence{L"PCI\\VEN_1E7D&DEV_0001", L"VEN_1E7D", true},
                    Occurrence{L"pci\\ven_1e7d&dev_0001", L"VEN_1E7D", true},
                    Occurrence{L"PCI\\VEN_1E7D&DEV_0001", L"ven_1e7d", true},
                    Occurrence{L"PCI\\VEN_1E7E&DEV_0001", L"VEN_1E7D", false},
                    Occurrence{L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", L"abcdefghijklmnopqrstuvwxyz", true},
                    Occurrence{L"abc", L"abc", true}, Occurrence{L"xabc", L"abc", true},  // whole, end
                    Occurrence{L"abcx", L"abc", true}, Occurrence{L"ab", L"abc", false},  // start, too long
                    Occurrence{L"aaab", L"aab", true},                                    // a false start before it
                    Occurrence{L"", L"a", false}, Occurrence{L"a", L"", true},
                    Occurrence{L"", L"", false},                                   // by design
                    Occurrence{L"[", L"{", false}, Occurrence{L"`", L"@", false},  // 32 apart, no letters
                    Occurrence{L"\u00e4", L"\u00c4", false}, Occurrence{L"\u00e4", L"\u00e4", true},
                    Occurrence{L"\u212a", L"k", false}, Occurrence{L"\u0131", L"I", false},
                    Occurrence{std::wstring_view(L"a\0bC", 4), std::wstring_view(L"\0Bc", 3), true}));
}  // namespace
}  // namespace repair
