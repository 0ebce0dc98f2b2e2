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
        {L"aaab", L"aab", true},  // a false start before it
        {L"", L"a", false},
        {L"a", L"", true},
        {L"", L"", false},    // by design
        {L"[", L"{", false},  // 32 apart, no letters
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
}  // namespace
}  // namespace repair
