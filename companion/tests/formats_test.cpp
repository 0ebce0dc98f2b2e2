// Conversions of text, and the limit of an archive.
#include <filesystem>
#include <string>

#include <windows.h>

#include <gtest/gtest.h>

#include "companion/failure.h"
#include "companion/output_file.h"
#include "companion/recogniser.h"
#include "companion/unicode.h"
#include "companion/zip_archive.h"

using namespace repair;

TEST(Recogniser, TheExitCodeStaysUnlessTheLogIsTrusted)
{
    const std::wstring log =
        L"Launched with command line: tool\nCurrently installed VLT is version [23.40] from driver version [23.40.1]\n"
        L"Installing C:\\dwx-next64.msi\n\tResult = 1603\n";
    Recogniser recogniser("x.log", static_cast<int>(0x80070643U));
    recogniser.Feed({reinterpret_cast<const char*>(log.data()), log.size() * sizeof(wchar_t)});
    Finding finding = recogniser.Finish();
    ASSERT_EQ(finding.candidates.size(), 1U);
    EXPECT_EQ(finding.exitCode, static_cast<int>(0x80070643U));
    TrustLog(finding);
    EXPECT_EQ(finding.exitCode, 1603);
}

TEST(OutputFile, AFileOfTheNameOfItsPartIsNotOverwritten)
{
    const std::wstring path = (std::filesystem::temp_directory_path() / L"formats_test").wstring();
    const std::wstring part = path + L".part";
    {
        OutputFile(path, true).Append("x");
        const FileHandle other(CreateFileW(part.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    }
    EXPECT_THROW(OutputFile(path, false), Failure);
    EXPECT_TRUE(std::filesystem::exists(part));
    std::filesystem::remove(part);
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
