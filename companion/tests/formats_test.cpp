// Names of logs, JSON, lines for CMTrace, command lines, archives.
#include <limits>
#include <string>
#include <vector>

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shellapi.h>

#include "companion/arguments.h"
#include "companion/cmtrace.h"
#include "companion/command_line.h"
#include "companion/failure.h"
#include "companion/json.h"
#include "companion/log_name.h"
#include "companion/unicode.h"
#include "companion/zip_archive.h"

using namespace repair;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(LogName, TellsWhenTheRunBegan)
{
    const auto time = ParseLogName("InstallVLTForWUDriver_2026-11-6_4_7_31_15.log");
    ASSERT_TRUE(time);
    EXPECT_EQ(FormatLocalTime(*time), "2026-11-06T04:07:31.015");
    EXPECT_EQ(ParseLogName("copy of installvltforwudriver_2026-11-6_4_7_31_15 (2).LOG"), time);
    for (const char* name :
         {"", "InstallVLTForWUDriver_.log", "InstallVLTForWUDriver_2026-13-6_4_7_31_15.log",
          "InstallVLTForWUDriver_2026-11-6_24_7_31_15.log", "InstallVLTForWUDriver_2026-11-6_4_7_31.log",
          "InstallVLTForWUDriver_2026-11-6_4_7_31_1000.log", "other.log"})
    {
        EXPECT_FALSE(ParseLogName(name)) << name;
    }
}

TEST(LogName, LaterRunsComeLater)
{
    EXPECT_LT(*ParseLogName("InstallVLTForWUDriver_2026-9-30_4_7_31_15.log"),
              *ParseLogName("InstallVLTForWUDriver_2026-10-1_4_7_31_15.log"));
}

TEST(Json, EscapesWhatItHasTo)
{
    JsonObject object;
    const std::vector<std::string> list = {"a", "b"};
    object.Add("a\"b", "c\\d\n\x01\x7Fü")
        .Add("n", -5)
        .Add("u", std::numeric_limits<std::uint64_t>::max())
        .Add("t", true)
        .AddNull("z");
    object.Add("l", list).Add("e", std::span<const std::string>());
    EXPECT_EQ(object.Text(),
              "{\"a\\\"b\":\"c\\\\d\\u000a\\u0001\\u007fü\",\"n\":-5,\"u\":18446744073709551615,\"t\":true,\"z\":null,"
              "\"l\":[\"a\",\"b\"],\"e\":[]}");
}

TEST(CmTrace, ALineHasTheTimeOfTheStart)
{
    EXPECT_EQ(CmTraceLine("\tResult = 1603", {2026, 11, 6, 4, 7, 31, 15}),
              "<![LOG[\tResult = 1603]LOG]!><time=\"04:07:31.015+000\" date=\"11-06-2026\" "
              "component=\"TavikCompatibilityTool\" context=\"\" "
              "type=\"3\" thread=\"0\" file=\"\">");
}

TEST(CmTrace, TheMarkOfTheEndStandsOnlyAtTheEnd)
{
    const std::string line = CmTraceLine("a]LOG]!>b]LOG]!>", {});
    EXPECT_EQ(line.find("]LOG]!>"), line.rfind("]LOG]!>"));
    EXPECT_THAT(line, HasSubstr("a]LOG] !>b]LOG] !>"));
}

TEST(CmTrace, TroubleIsMarked)
{
    const std::pair<const char*, Severity> cases[] = {
        {"Launched with command line: x", Severity::Information},
        {"Unable to find dwx2-install.exe at [x]. Downloading dwx2_install.exe for [24.20] from web.",
         Severity::Information},
        {"Unable to find x\\dwx-next64.msi.", Severity::Error},
        {"Response code from server: 200", Severity::Information},
        {"Response code from server: 404", Severity::Error},
        {"\tResult = 0", Severity::Information},
        {"\tResult = 1641", Severity::Warning},
        {"\tResult = 3010", Severity::Warning},
        {"\tResult = 3011", Severity::Warning},
        {"\tResult = 1618", Severity::Error},
        {"System reboot may be required for x.", Severity::Warning},
        {"\tException occured during installation. x", Severity::Error},
        {"Exception x when searching for UWP version of VLT", Severity::Warning},
        {"failed to install the UWP version of VLT", Severity::Error},
        {"Currently installed version of VLT is from the same release as the active driver. Exiting.",
         Severity::Information},
    };
    for (const auto& [line, severity] : cases)
    {
        EXPECT_EQ(SeverityOf(line), severity) << line;
    }
}

TEST(QuoteArgument, WindowsTakesItApartAgain)
{
    const std::vector<std::wstring> arguments = {
        L"-Path", L"C:\\My Files\\setup.exe", L"", L"C:\\ends with\\", L"a\"b", L"\\\\\"", L"a\\\\b c\\\\", L"\t",
        L"ü"};
    std::wstring line = L"program";
    for (const std::wstring& argument : arguments)
    {
        line += L" " + QuoteArgument(argument);
    }
    int count = 0;
    wchar_t** const split = CommandLineToArgvW(line.c_str(), &count);
    ASSERT_NE(split, nullptr);
    EXPECT_EQ(std::vector<std::wstring>(split + 1, split + count), arguments);
    LocalFree(split);
    EXPECT_EQ(QuoteArgument(L"-SILENT"), L"-SILENT");
}

TEST(ExitCodes, AreTakenWithAndWithoutSign)
{
    EXPECT_EQ(ParseExitCode("-1"), -1);
    EXPECT_EQ(ParseExitCode("4294967295"), -1);
    EXPECT_EQ(ParseExitCode("2147942405"), -2147024891);
    for (const char* text : {"", "x", "1x", " 1", "4294967296", "-2147483649", "0x5"})
    {
        EXPECT_FALSE(ParseExitCode(text)) << text;
    }
}

TEST(Arguments, OptionsMayStandAnywhereBeforeTheMark)
{
    Arguments arguments({L"a", L"--exit", L"-1", L"b", L"--json", L"--", L"--json", L"c"});
    EXPECT_TRUE(arguments.TakeFlag(L"--json"));
    EXPECT_EQ(arguments.TakeNumber(L"--exit"), -1);
    EXPECT_THAT(arguments.TakeOperands(2, 2), ElementsAre(L"a", L"b"));
    EXPECT_THAT(arguments.GetTail(), ElementsAre(L"--json", L"c"));
}

TEST(Arguments, MistakesAreToldApart)
{
    EXPECT_THROW(Arguments({L"--exit"}).TakeNumber(L"--exit"), UsageError);
    EXPECT_THROW(Arguments({L"--exit", L"x"}).TakeNumber(L"--exit"), UsageError);
    EXPECT_THROW(Arguments({L"--unknown"}).TakeOperands(0, 9), UsageError);
    EXPECT_THROW(Arguments({L"a"}).TakeOperands(2, 2), UsageError);
    EXPECT_THROW(Arguments({L"a", L"b"}).TakeOperands(1, 1), UsageError);
}

TEST(Unicode, LettersAreFoldedAsWindowsDoes)
{
    for (char32_t c = 1; c < 0x10000; ++c)
    {
        const char32_t folded = Fold(c);
        if (folded != c)
        {
            const auto wide = static_cast<wchar_t>(c);
            wchar_t lower = 0;
            ASSERT_EQ(LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_LOWERCASE, &wide, 1, &lower, 1, nullptr, nullptr, 0),
                      1);
            EXPECT_EQ(folded, static_cast<char32_t>(lower)) << std::hex << static_cast<unsigned>(c);
        }
    }
    EXPECT_EQ(Fold(U'Ä'), U'ä');
    EXPECT_EQ(Fold(U'Ő'), U'ő');
    EXPECT_EQ(Fold(U'Ж'), U'ж');
    EXPECT_EQ(Fold(U'Σ'), U'σ');
}

namespace
{
class TextTarget : public ZipTarget
{
public:
    std::string text;
    size_t room = SIZE_MAX;

    bool Append(std::string_view bytes) override
    {
        text += bytes;
        return text.size() <= room;
    }
    bool Patch(std::uint64_t offset, std::string_view bytes) override
    {
        text.replace(offset, bytes.size(), bytes);
        return true;
    }
};
}  // namespace

TEST(ZipArchive, HoldsFilesOneAfterTheOther)
{
    TextTarget target;
    ZipArchive archive(target);
    EXPECT_TRUE(archive.Begin("ü.txt", {2026, 11, 6, 4, 7, 31, 15}));
    EXPECT_TRUE(archive.Write("1234"));
    EXPECT_TRUE(archive.Write("56789"));
    EXPECT_TRUE(archive.End());
    EXPECT_TRUE(archive.Finish());
    const std::string sizes("\x26\x39\xF4\xCB\x09\x00\x00\x00\x09\x00\x00\x00",
                            12);  // the well-known checksum of these digits
    EXPECT_EQ(target.text.substr(0, 4), "PK\x03\x04");
    EXPECT_EQ(target.text.substr(14, 12), sizes);
    EXPECT_EQ(target.text.substr(30, 15), "ü.txt123456789");
    EXPECT_EQ(target.text.substr(45, 4), "PK\x01\x02");
    EXPECT_EQ(target.text.substr(61, 12), sizes);
    EXPECT_EQ(target.text.substr(97), std::string("PK\x05\x06\0\0\0\0\x01\0\x01\0\x34\0\0\0\x2D\0\0\0\0\0", 22));
}

TEST(ZipArchive, EndsAtItsLimit)
{
    TextTarget target;
    ZipArchive archive(target, 200);
    EXPECT_TRUE(archive.Begin("a", {}));
    EXPECT_TRUE(archive.Write("x"));
    EXPECT_FALSE(archive.Write(std::string(200, 'x')));
    EXPECT_FALSE(archive.Finish());
    EXPECT_LE(target.text.size(), 200U);
}

TEST(ZipArchive, SaysWhenTheTargetFails)
{
    TextTarget target;
    target.room = 40;
    ZipArchive archive(target);
    EXPECT_TRUE(archive.Begin("a", {}));
    EXPECT_FALSE(archive.Write("1234567890"));
    EXPECT_FALSE(archive.End());
}
