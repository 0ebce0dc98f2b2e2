#include <stdexcept>
#include <string_view>

#include "base/text.h"
#include "support/test.h"

namespace repair
{
namespace
{
TEST(ContainsNoCase, ComparesOnlyTheLettersAToZWithoutCase)
{
    const std::tuple<std::wstring_view, std::wstring_view, bool> rows[] = {
        {L"PCI\\VEN_1E7D&DEV_0001", L"VEN_1E7D", true},
        {L"PCI\\VEN_1E7E&DEV_0001", L"VEN_1E7D", false},
        {L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", L"abcdefghijklmnopqrstuvwxyz", true},
        {L"abcdefghijklmnopqrstuvwxyz", L"ABCDEFGHIJKLMNOPQRSTUVWXYZ", true},
        {L"abc", L"abc", true},
        {L"xabc", L"abc", true},
        {L"abcx", L"abc", true},
        {L"ab", L"abc", false},
        {L"aaab", L"aab", true},  // a partial match comes first
        {L"", L"a", false},
        {L"a", L"", true},
        {L"", L"", false},    // by design
        {L"[", L"{", false},  // codes differ by 32 like a letter's two cases, but these are no letters
        {L"`", L"@", false},
        {L"\u00e4", L"\u00c4", false},
        {L"\u212a", L"k", false},
        {L"\u0131", L"I", false},
        {std::wstring_view(L"a\0bC", 4), std::wstring_view(L"\0Bc", 3), true}};
    for (const auto& [haystack, needle, occurs] : rows)
    {
        EXPECT_EQ(ContainsNoCase(std::wstring(haystack), std::wstring(needle)), occurs)
            << PrintToString(std::wstring(haystack));
    }
}

// Proves: A line shows the text of an exception, with paths and system texts in any language => they are readable, although both have encodings of their own
TEST(ExceptionText, IsReadAsUtf8AndWhatIsNotInTheCodePageOfTheSystem)
{
    if (GetACP() != 1252)
    {
        GTEST_SKIP() << "the bytes of these texts are of another code page";
    }
    const std::pair<const char*, const wchar_t*> rows[] = {
        {"", L""},
        {"plain [C:\\x]", L"plain [C:\\x]"},
        {"J\xc3\xbcrgen \xe2\x98\x83 \xf0\x9f\x98\x80.", L"J\u00fcrgen \u2603 \U0001f600."},
        {"\xc3\xa4\xc3\xb6\xe2\x98\x83\xe2\x98\x83", L"\u00e4\u00f6\u2603\u2603"},  // one directly after the other
        {"ung\xfcltig: [J\xc3\xbcrgen]", L"ung\u00fcltig: [J\u00fcrgen]"},          // both in one text
        {"\x80 \xe4", L"\u20ac \u00e4"},
        {"x\xe2\x98", L"x\u00e2\u02dc"},                                 // cut off
        {"\xc0\xaf \xed\xa0\x80", L"\u00c0\u00af \u00ed\u00a0\u20ac"}};  // not allowed
    for (const auto& [bytes, text] : rows)
    {
        EXPECT_EQ(ExceptionText(std::runtime_error(bytes)), text);
    }
}
}  // namespace
}  // namespace repair
