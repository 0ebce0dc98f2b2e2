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
constexpr std::string_view kCheck = "Currently installed VLT is version [23.40] from driver version []";

std::vector<std::string> Ids(std::optional<int> exitCode, const std::vector<std::string_view>& lines)
{
    Recogniser recogniser(BuiltInCatalogue(), exitCode);
    for (const std::string_view line : lines)
    {
        recogniser.Feed(line);
    }
    std::vector<std::string> ids;
    for (const Candidate& candidate : recogniser.Finish())
    {
        ids.emplace_back(candidate.meaning->id);
    }
    return ids;
}

Finding Explained(const std::string& name, std::optional<int> exitCode, std::string_view bytes)
{
    Classifier classifier(BuiltInCatalogue(), name, exitCode);
    classifier.Feed(bytes);
    return classifier.Finish();
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

TEST(Recogniser, NamesTheOutcomeOfARun)
{
    EXPECT_THAT(
        Ids(-1, {kCheck, "Currently installed version of VLT is from the same release as the active driver. Exiting."}),
        ElementsAre("same-release"));
    EXPECT_THAT(Ids(0, {kCheck, "Installing C:\\x\\dwx-next64.msi", "\tResult = 0"}), ElementsAre("repaired"));
    EXPECT_THAT(
        Ids(0, {kCheck, "Installing C:\\x\\dwx-next64.msi", "\tResult = 0", "System reboot may be required for x."}),
        ElementsAre("repaired-restart"));
    EXPECT_THAT(Ids(1618, {kCheck, "Installing C:\\x\\dwx-next64.msi", "\tResult = 1618"}),
                ElementsAre("install-busy"));
    EXPECT_THAT(Ids(3, {}), ElementsAre("no-log-folder"));
    EXPECT_THAT(Ids(5, {}), ElementsAre("no-log"));
}

TEST(Recogniser, NamesAllThatRemainWithoutAnExitCode)
{
    EXPECT_THAT(Ids(std::nullopt, {kCheck}), ElementsAre("quiet-end", "interrupted", "log-cut"));
    EXPECT_THAT(Ids(std::nullopt, {}), ElementsAre("no-log-folder", "no-log"));
}

TEST(Recogniser, IgnoresAnOutcomeOfAnotherModeOrCode)
{
    const std::vector<std::string_view> lines = {"Installing C:\\x\\dwx-next64.msi", "\tResult = 1618"};
    EXPECT_THAT(Ids(1603, {kCheck, lines[0], lines[1]}), ElementsAre("interrupted"));
    EXPECT_THAT(Ids(1618, lines), ElementsAre("interrupted"));  // a direct installation never ends with that code
}

TEST(Recogniser, KeepsTheLinesThatMatched)
{
    Recogniser recogniser(BuiltInCatalogue(), 0);
    for (const std::string_view line :
         {kCheck, std::string_view("Installing C:\\x\\dwx-next64.msi"), std::string_view("something else"),
          std::string_view("\tResult = 0"), std::string_view("System reboot may be required for x.")})
    {
        recogniser.Feed(line);
    }
    EXPECT_EQ(recogniser.GetMode(), RunMode::kCheck);
    ASSERT_EQ(recogniser.Finish().size(), 1U);
    EXPECT_THAT(recogniser.Finish().front().evidence, ElementsAre("Installing C:\\x\\dwx-next64.msi", "\tResult = 0",
                                                                  "System reboot may be required for x."));
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
    const Finding finding = Explained("InstallVLTForWUDriver_2026-11-6_4_7_31_15.log", -1,
                                      "Launched with command line: \"x\"\nAnother instance is running. Exiting.\n");
    const std::string json = ExplainAsJson(finding);
    EXPECT_THAT(json,
                testing::StartsWith(
                    "{\"log\":\"InstallVLTForWUDriver_2026-11-6_4_7_31_15.log\",\"began\":\"2026-11-06T04:07:31.015\","
                    "\"mode\":\"check\",\"exit\":-1,\"outcome\":\"another-instance\","));
    EXPECT_THAT(json, HasSubstr("\"code\":1618,\"retry\":\"later\","));
    EXPECT_THAT(json, HasSubstr("\"evidence\":[\"Another instance is running. "
                                "Exiting.\"],\"candidates\":[\"another-instance\"],\"lines\":2,"));
    EXPECT_THAT(json, testing::EndsWith("\"damage\":[]}"));
}

TEST(Explanation, AnyTextOfTheLogIsValidJson)
{
    const Finding finding = Explained("a\"\x01.log", std::nullopt, "b\"c\\d\x01\x7Fü");
    const std::string json = ExplainAsJson(finding);
    EXPECT_TRUE(std::ranges::none_of(json, [](unsigned char c) { return c < 0x20; }));
    const nlohmann::json parsed = nlohmann::json::parse(json);
    EXPECT_EQ(parsed["log"], "a\"\x01.log");
    EXPECT_EQ(parsed["last_line"], "b\"c\\d\x01\x7Fü");
    EXPECT_TRUE(parsed["exit"].is_null() && parsed["began"].is_null());
}

TEST(Explanation, KeepsControlCharactersFromTheTerminal)
{
    const Finding finding =
        Explained("a\x1B.log", 1618,
                  "Launched with command line: \"x\"\nCurrently installed VLT is version [1] from driver version [1]\n"
                  "Installing \x1B[2J\x07\x7F\u009B\u00A0\xC3\xBC dwx-next64.msi\n\tResult = 1618\n");
    const std::string text = ExplainAsText(finding);
    EXPECT_THAT(text, HasSubstr("Log        a\uFFFD.log\n"));
    EXPECT_THAT(
        text,
        HasSubstr("Installing \uFFFD[2J\uFFFD\uFFFD\uFFFD\u00A0\xC3\xBC dwx-next64.msi\n           \tResult = 1618\n"));
}

TEST(Explanation, CleansWhatComesFromTheMachine)
{
    const Finding finding = Explained("owner.log", std::nullopt, "a line of owner\n");
    const auto clean = [](std::string_view) { return std::string("CLEAN"); };
    const std::string json = ExplainAsJson(finding, clean);
    EXPECT_THAT(json, testing::Not(HasSubstr("owner")));
    EXPECT_THAT(json, HasSubstr("\"log\":\"CLEAN\""));
    EXPECT_THAT(json, HasSubstr("\"last_line\":\"CLEAN\""));
}
