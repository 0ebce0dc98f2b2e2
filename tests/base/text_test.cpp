#include <gtest/gtest.h>

#include <string>

#include "base/text.h"

namespace repair
{
namespace
{
struct Occurrence
{
    std::wstring haystack;
    std::wstring needle;
    bool occurs;
};

class TextContains : public testing::TestWithParam<Occurrence>
{
};

TEST_P(TextContains, ComparesOnlyTheLettersAToZWithoutCase)
{
    EXPECT_EQ(ContainsNoCase(GetParam().haystack, GetParam().needle), GetParam().occurs);
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
                    Occurrence{std::wstring(L"a\0bC", 4), std::wstring(L"\0Bc", 3), true}));

// Proves: A line is formatted => wide and narrow texts, signed numbers
TEST(LineFormat, WidePrintfFamily)
{
    EXPECT_EQ(FormatLine(L"no arguments"), L"no arguments");
    EXPECT_EQ(FormatLine(L""), L"");
    EXPECT_EQ(FormatLine(L"[%s] [%ls]", L"wide", L"also wide"), L"[wide] [also wide]");
    EXPECT_EQ(FormatLine(L"%s", L"\u20ac\U0001f600\u00e9"), L"\u20ac\U0001f600\u00e9");
    EXPECT_EQ(FormatLine(L"%hs", "narrow"), L"narrow");
    EXPECT_EQ(FormatLine(L"%hs", "\xc3\xa9"), L"\u00c3\u00a9");  // a byte, a character
    EXPECT_EQ(FormatLine(L"%d", 0x80070005), L"-2147024891");    // HRESULTs show as negative numbers
    EXPECT_EQ(FormatLine(L"%d", 12029ul), L"12029");
}

TEST(LineFormat, BlankBeforeTheConversionIsTheSignBlankAndNothingForText)
{
    EXPECT_EQ(FormatLine(L"property: % d % s", 5, L"Access denied. "), L"property:  5 Access denied. ");
    EXPECT_EQ(FormatLine(L"property: % d % s", -5, L"text"), L"property: -5 text");
}

// Proves: A line is longer than 1,023 characters, or has a NUL inside => it is cut there
TEST(LineFormat, CutsAfter1023Characters)
{
    EXPECT_EQ(FormatLine(L"%s", std::wstring(1022, L'x').c_str()), std::wstring(1022, L'x'));
    EXPECT_EQ(FormatLine(L"%s", std::wstring(1023, L'x').c_str()), std::wstring(1023, L'x'));
    EXPECT_EQ(FormatLine(L"%s", std::wstring(1024, L'x').c_str()), std::wstring(1023, L'x'));
    EXPECT_EQ(FormatLine(L"ab%s%d", std::wstring(5000, L'x').c_str(), 7), L"ab" + std::wstring(1021, L'x'));
    EXPECT_EQ(FormatLine(L"%hs", std::string(2000, 'y').c_str()), std::wstring(1023, L'y'));
}

TEST(LineFormat, EndsAtTheFirstNul)
{
    EXPECT_EQ(FormatLine(L"a%cb", 0), L"a");
}
}  // namespace
}  // namespace repair
