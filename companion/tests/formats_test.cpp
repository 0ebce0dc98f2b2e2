// Names of logs, lines for CMTrace, conversions of text, archives.
#include <filesystem>
#include <string>

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "companion/cmtrace.h"
#include "companion/failure.h"
#include "companion/log_name.h"
#include "companion/output_file.h"
#include "companion/unicode.h"
#include "companion/zip_archive.h"

using namespace repair;
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

TEST(CmTrace, TheMarkOfTheEndIsOnlyAtTheEnd)
{
    const std::string line = CmTraceLine("a]LOG]!>b]LOG]!>", {});
    EXPECT_EQ(line.find("]LOG]!>"), line.rfind("]LOG]!>"));
    EXPECT_THAT(line, HasSubstr("a]LOG] !>b]LOG] !>"));
}

TEST(CmTrace, FailuresAndWarningsAreMarked)
{
    const std::pair<const char*, Severity> cases[] = {
        {"Launched with command line: x", Severity::kInformation},
        {"Unable to find dwx2-install.exe at [x]. Downloading dwx2_install.exe for [24.20] from web.",
         Severity::kInformation},
        {"Unable to find x\\dwx-next64.msi.", Severity::kError},
        {"Response code from server: 200", Severity::kInformation},
        {"Response code from server: 404", Severity::kError},
        {"\tResult = 0", Severity::kInformation},
        {"\tResult = 1641", Severity::kWarning},
        {"\tResult = 3010", Severity::kWarning},
        {"\tResult = 3011", Severity::kWarning},
        {"\tResult = 1618", Severity::kError},
        {"System reboot may be required for x.", Severity::kWarning},
        {"\tException occured during installation. x", Severity::kError},
        {"Exception x when searching for UWP version of VLT", Severity::kWarning},
        {"failed to install the UWP version of VLT", Severity::kError},
        {"Currently installed version of VLT is from the same release as the active driver. Exiting.",
         Severity::kInformation},
    };
    for (const auto& [line, severity] : cases)
    {
        EXPECT_EQ(SeverityOf(line), severity) << line;
    }
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

TEST(Unicode, TextIsConvertedBothWaysAndInvalidTextReplaced)
{
    const std::pair<std::wstring_view, std::string_view> cases[] = {
        {L"", ""}, {L"aü€", "aü€"}, {L"\xD83D\xDE00!", "\U0001F600!"}, {L"\uFFFE", "\uFFFE"}};
    for (const auto& [wide, utf8] : cases)
    {
        EXPECT_EQ(ToUtf8(wide), utf8);
        EXPECT_EQ(ToWide(utf8), wide);
    }
    EXPECT_EQ(ToUtf8(L"a\xD83D"), "a\uFFFD");
    EXPECT_EQ(ToUtf8(L"\xDE00\xD83D b"), "\uFFFD\uFFFD b");
    EXPECT_EQ(ToWide("a\xFF z\xE2\x82"), L"a\uFFFD z\uFFFD");
    EXPECT_EQ(ToUtf32("a\xED\xA0\x80z"), U"a\uFFFDz");
    EXPECT_EQ(LengthInUtf16("\U0001F600ü\xFF"), 4U);
}

TEST(ZipArchive, EndsAtItsLimit)
{
    OutputFile file((std::filesystem::temp_directory_path() / "companion_test.zip").wstring());
    ZipArchive small(file, 200);
    small.Begin("a", {});
    small.Write("x");
    EXPECT_THROW(small.Write(std::string(201, 'x')), Failure);  // although it compresses well
    ZipArchive full(file, 60);
    EXPECT_THROW(full.Begin("a", {}), Failure);
}
