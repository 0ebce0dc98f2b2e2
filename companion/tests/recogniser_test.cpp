#include "companion/recogniser.h"

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "companion/explanation.h"
#include "companion/pattern.h"

using namespace repair;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
constexpr char kCheck[] = "Currently installed VLT is version [23.40] from driver version []\n";
constexpr char kBusy[] = "Installing C:\\x\\dwx-next64.msi\n\tResult = 1618\n";

Finding Explained(const std::string& name, std::optional<int> exitCode, std::string_view bytes)
{
    Recogniser recogniser(name, exitCode);
    recogniser.Feed(bytes);
    return recogniser.Finish();
}
}  // namespace

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

TEST(Recogniser, IgnoresAnOutcomeOfAnotherModeOrCode)
{
    const std::tuple<int, std::string, std::string> cases[] = {
        {1618, std::string(kCheck) + kBusy, "install-busy"},
        {1603, std::string(kCheck) + kBusy, "interrupted"},
        {1618, kBusy, "interrupted"},  // a direct installation never ends with that code
    };
    for (const auto& [exitCode, log, id] : cases)
    {
        const std::vector<Candidate> candidates = Explained("log", exitCode, log).candidates;
        ASSERT_EQ(candidates.size(), 1U) << id;
        EXPECT_EQ(candidates.front().meaning->id, id);
    }
}

TEST(Recogniser, KeepsTheLinesThatMatched)
{
    const Finding finding = Explained("log", 0,
                                      std::string(kCheck) +
                                          "Installing dwx-next64.msi\nsomething else\n\tResult = 0\n"
                                          "System reboot may be required for x.\n");
    EXPECT_EQ(finding.mode, RunMode::kCheck);
    ASSERT_EQ(finding.candidates.size(), 1U);
    EXPECT_THAT(finding.candidates.front().evidence,
                ElementsAre("Installing dwx-next64.msi", "\tResult = 0", "System reboot may be required for x."));
}

TEST(Explanation, ALineThatIsTooLongMatchesNoPattern)
{
    const Finding finding =
        Explained("log", -1, "Another instance is running. Exiting." + std::string(LineReader::kLongestPiece, 'x'));
    EXPECT_EQ(finding.lines, 1U);
    EXPECT_THAT(finding.candidates.front().meaning->id, "interrupted");
    EXPECT_EQ(finding.lastLine, "\uFFFD");
}

TEST(Explanation, IsOneLineOfJsonForPrograms)
{
    const std::string json = ExplainAsJson(
        Explained("InstallVLTForWUDriver_2026-11-6_4_7_31_15.log", -1, "Another instance is running. Exiting.\n"));
    EXPECT_THAT(json, testing::StartsWith("{\"log\":\"InstallVLTForWUDriver_2026-11-6_4_7_31_15.log\","
                                          "\"began\":\"2026-11-06T04:07:31.015\",\"mode\":\"check\",\"exit\":-1,"
                                          "\"outcome\":\"another-instance\","));
    EXPECT_THAT(json, HasSubstr("\"code\":1618,\"retry\":\"later\","));
    EXPECT_THAT(json, testing::EndsWith("\"evidence\":[\"Another instance is running. Exiting.\"],"
                                        "\"candidates\":[\"another-instance\"],\"lines\":1,"
                                        "\"last_line\":\"Another instance is running. Exiting.\",\"damage\":[]}"));
}

TEST(Explanation, AnyTextOfTheLogIsValidJson)
{
    const std::string json = ExplainAsJson(Explained("a\"\x01.log", std::nullopt, "b\"c\\d\x01\x7Fü"));
    EXPECT_TRUE(std::ranges::none_of(json, [](unsigned char c) { return c < 0x20; }));
    const nlohmann::json parsed = nlohmann::json::parse(json);
    EXPECT_EQ(parsed["log"], "a\"\x01.log");
    EXPECT_EQ(parsed["last_line"], "b\"c\\d\x01\x7Fü");
    EXPECT_EQ(parsed["damage"], nlohmann::json({"its last line is not complete"}));
    EXPECT_TRUE(parsed["exit"].is_null() && parsed["began"].is_null());
}

TEST(Explanation, KeepsControlCharactersFromTheTerminal)
{
    const std::string text =
        ExplainAsText(Explained("a\x1B.log", 1618,
                                std::string(kCheck) + "Installing \x1B[2J\x07\x7F\u009B\u00A0\xC3\xBC dwx-next64.msi\n"
                                                      "\tResult = 1618\n"));
    EXPECT_THAT(text, HasSubstr("Log        a\uFFFD.log\n"));
    EXPECT_THAT(text, HasSubstr("Installing \uFFFD[2J\uFFFD\uFFFD\uFFFD\u00A0\xC3\xBC dwx-next64.msi\n"
                                "           \tResult = 1618\n"));
}
