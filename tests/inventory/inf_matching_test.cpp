// The two expressions of the INF reader, matched by hand in the product, against the standard library's own.

#include <iterator>
#include <optional>
#include <random>
#include <regex>
#include <string_view>

#include "inventory/inf_release.h"
#include "support/test.h"

namespace repair
{
namespace
{
std::optional<std::wstring> Header(std::wstring_view line)
{
    std::wstring_view name;
    return MatchSectionHeader(line, name) ? std::optional<std::wstring>(name) : std::nullopt;
}

std::optional<std::wstring> Release(std::wstring_view text)
{
    std::wstring_view value;
    return MatchReleaseLine(text, value) ? std::optional<std::wstring>(value) : std::nullopt;
}

// Short lines that resemble a match, from a fixed seed.
class LineSource
{
public:
    std::wstring Header()
    {
        std::wstring line;
        AppendAny(line, 1);
        line = Chance(80) ? L"[" + line.substr(0, Below(2)) : line;
        AppendAny(line, 9);
        line += Chance(80) ? L"]" : L"";
        AppendAny(line, Chance(15) ? 3 : 0);
        return line;
    }

    std::wstring Release()
    {
        std::wstring line = Chance(5) ? L" " : L"";
        for (wchar_t c : std::wstring_view(L"HKR,,ReleaseVersion,,"))
        {
            const bool isLetter = c != L',';
            if (isLetter && Chance(30))
            {
                c = static_cast<wchar_t>(c ^ 0x20);
            }
            if (Chance(1))
            {
                c = Any();
            }
            if (!Chance(1))
            {
                line += c;
            }
        }
        AppendAny(line, 8);
        return line;
    }

private:
    size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }
    bool Chance(size_t percent) { return Below(100) < percent; }

    wchar_t Any()
    {
        static constexpr wchar_t kCharacters[] =
            L"[[]]]aZ09 ,;\t\0\r\n\x0b\x0c\x7f\u0080\u0085\u00a0\u00c9\u00e9\u00ff\u0130\u0131\u017f\u2028\u2029\u212a"
            L"HKRhkrReleaseVersion\ufeff\uffff";
        static_assert(std::size(kCharacters) > 50);
        // Most characters are plain, otherwise hardly a line would match.
        return Chance(70) ? static_cast<wchar_t>(L'a' + Below(26)) : kCharacters[Below(std::size(kCharacters) - 1)];
    }

    void AppendAny(std::wstring& line, size_t longest)
    {
        for (size_t count = Below(longest + 1); count > 0; --count)
        {
            line += Any();
        }
    }

    std::mt19937 random_{20240611};
};

std::optional<std::wstring> ByExpression(const std::wstring& line, const std::wregex& expression)
{
    std::wsmatch match;
    return std::regex_match(line, match, expression) ? std::optional<std::wstring>(match[1].str()) : std::nullopt;
}

std::string Numbers(const std::wstring& line)
{
    std::string text;
    for (const wchar_t c : line)
    {
        text += std::to_string(static_cast<unsigned>(c)) + " ";
    }
    return text;
}

// Compares how the product matches lines that resemble an expression with how the expression does.
void ExpectMatches(const wchar_t* text, std::wstring (LineSource::*nextLine)(),
                   std::optional<std::wstring> (*match)(std::wstring_view))
{
    const std::wregex expression(text, std::regex::icase);
    LineSource lines;
    int matches = 0;
    constexpr int kLines = 1'000'000;
    for (int i = 0; i < kLines; ++i)
    {
        const std::wstring line = (lines.*nextLine)();
        const auto expected = ByExpression(line, expression);
        ASSERT_EQ(match(line), expected) << Numbers(line);
        matches += expected ? 1 : 0;
    }
    EXPECT_GT(matches, kLines / 5);  // the comparison shows something only when both answers are frequent
    EXPECT_LT(matches, kLines * 4 / 5);
}

TEST(GeneratedLines, MatchAsTheExpressionsDo)
{
    ExpectMatches(LR"(\[(.*)\])", &LineSource::Header, &Header);
    ExpectMatches(L"HKR,,ReleaseVersion,,(.*)", &LineSource::Release, &Release);
}
}  // namespace
}  // namespace repair
