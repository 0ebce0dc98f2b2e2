#include "companion/pattern.h"

#include <limits>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

using namespace repair;

TEST(Pattern, StarIsAnyTextAndEveryOtherCharacterItself)
{
    const std::tuple<std::string_view, std::string_view, bool> cases[] = {
        {"a", "a", true},         {"a", "A", false},        {"a", "ab", false},   {"", "", true},
        {"", "a", false},         {"*", "", true},          {"*", "abc", true},   {"a*c", "ac", true},
        {"a*c", "abcbc", true},   {"a*c", "abcd", false},   {"*b*", "abc", true}, {"*ab*ab", "ababab", true},
        {"*ab*ab", "aab", false}, {"a**b", "axb", true},    {"[*]", "[]", true},  {"a.c", "abc", false},
        {"*aab", "aaab", true},   {"a*bc*d", "abbcd", true}};
    for (const auto& [pattern, line, matches] : cases)
    {
        EXPECT_EQ(MatchLine(pattern, line).matches, matches) << pattern << " / " << line;
    }
}

TEST(Pattern, ResultIsANumberAndRemembersIt)
{
    EXPECT_EQ(MatchLine("\tResult = <result>", "\tResult = -2147024891").result, -2147024891);
    EXPECT_EQ(MatchLine("*. Error <result>", "a 5. Error 12029").result, 12029);
    EXPECT_EQ(MatchLine("R = <result>", "R = 99999999999999999999").result, std::numeric_limits<long long>::max());
    EXPECT_EQ(MatchLine("R = <result>", "R = -99999999999999999999").result, std::numeric_limits<long long>::min());
    EXPECT_EQ(MatchLine("plain", "plain").result, std::nullopt);
    for (const std::string_view line : {"R = ", "R = -", "R = x", "R = 5x", "R = +5"})
    {
        EXPECT_FALSE(MatchLine("R = <result>", line).matches) << line;
    }
}

TEST(Pattern, FailureIsEveryNumberExceptTheSuccessCodesOfWindowsInstaller)
{
    for (const int number : {0, 1641, 3010, 3011})
    {
        EXPECT_FALSE(MatchLine("R = <failure>", "R = " + std::to_string(number)).matches) << number;
    }
    for (const int number : {1, -1, 30, 164, 1603, 30100})
    {
        EXPECT_TRUE(MatchLine("R = <failure>", "R = " + std::to_string(number)).matches) << number;
    }
}
