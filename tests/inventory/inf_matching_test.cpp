// The two expressions of the INF reader, matched by hand in the product, against the standard library's own.
#include <optional>
#include <regex>
#include <string_view>

#include "inventory/inf_release.h"
#include "support/test.h"

namespace repair
{
namespace
{
// Calls the product's function; the group, or nothing if the text does not match.
template <typename Match>
std::optional<std::wstring> GroupOf(Match match, const std::wstring& text)
{
    std::wstring_view group;
    return match(text, group) ? std::optional<std::wstring>(group) : std::nullopt;
}

std::optional<std::wstring> GroupByExpression(const std::wregex& expression, const std::wstring& text)
{
    std::wsmatch match;
    return std::regex_match(text, match, expression) ? std::optional<std::wstring>(match[1].str()) : std::nullopt;
}

// All texts of these characters up to a length.
std::vector<std::wstring> AllTexts(std::wstring_view characters, size_t longest)
{
    std::vector<std::wstring> texts = {L""};
    for (size_t begin = 0, length = 0; length < longest; ++length)
    {
        const size_t end = texts.size();
        for (; begin < end; ++begin)
        {
            for (const wchar_t c : characters)
            {
                texts.push_back(texts[begin] + c);
            }
        }
    }
    return texts;
}

TEST(SectionHeader, IsMatchedAsByTheExpression)
{
    const std::wregex expression(LR"(\[(.*)\])", std::regex::icase);
    int matches = 0;
    for (const std::wstring& line : AllTexts(std::wstring_view(L"[]a\0\n\r\u2028\u2029", 8), 5))
    {
        const auto group = GroupByExpression(expression, line);
        ASSERT_EQ(GroupOf(&MatchSectionHeader, line), group) << PrintToString(line);
        matches += group ? 1 : 0;
    }
    EXPECT_EQ(matches, 1 + 4 + 16 + 64);  // all texts of up to three of the four characters that are no line ends
}

TEST(ReleaseLine, IsMatchedAsByTheExpressionAfterEveryChangeOfOneCharacter)
{
    const std::wregex expression(L"HKR,,ReleaseVersion,,(.*)", std::regex::icase);
    const std::wstring_view characters(L" ,aAhHkKrReEsSvVnNx\0\n\r\u00e9\u0130\u0131\u017f\u2028\u2029\u212a\uffff",
                                       30);
    std::vector<std::wstring> beginnings = {L"HKR,,ReleaseVersion,,", L"hkr,,releaseversion,,",
                                            L"HKR,,RELEASEVERSION,,"};
    const std::wstring plain = beginnings.front();
    for (size_t at = 0; at < plain.size(); ++at)
    {
        beginnings.push_back(std::wstring(plain).erase(at, 1));
        for (const wchar_t c : characters)
        {
            beginnings.push_back(std::wstring(plain).replace(at, 1, 1, c));
            beginnings.push_back(std::wstring(plain).insert(at, 1, c));
        }
    }
    int matches = 0;
    for (const std::wstring& end : AllTexts(std::wstring_view(L"1, \0\n\r\u2028\u2029\u0085", 9), 2))
    {
        for (const std::wstring& beginning : beginnings)
        {
            const auto group = GroupByExpression(expression, beginning + end);
            ASSERT_EQ(GroupOf(&MatchReleaseLine, beginning + end), group) << PrintToString(beginning + end);
            matches += group ? 1 : 0;
        }
    }
    EXPECT_GT(matches, 1000);  // the test is useful only if both answers are frequent
}
}  // namespace
}  // namespace repair
