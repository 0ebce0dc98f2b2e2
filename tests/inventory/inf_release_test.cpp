#include <windows.h>

#include <setupapi.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <list>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "base/handles.h"
#include "inventory/inf_release.h"
#include "support/log_capture.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(SetupCloseInfFile)
IMPORTED(SetupFindFirstLineW)
IMPORTED(SetupFindNextLine)
IMPORTED(SetupGetLineTextW)
IMPORTED(SetupOpenInfFileW)

using testing::ElementsAre;
using testing::IsEmpty;

namespace repair
{
namespace
{
struct InfText
{
    const char* description;
    std::string bytes;
    std::list<std::wstring> sections;
};

std::ostream& operator<<(std::ostream& out, const InfText& text)
{
    return out << text.description;
}

std::string Utf16(const std::string& text)
{
    std::string bytes = "\xff\xfe";
    for (const char c : text)
    {
        bytes += c;
        bytes += '\0';
    }
    return bytes;
}

class InfSections : public testing::TestWithParam<InfText>
{
};

// Proves: Section names are read => whole lines in brackets, in file order, twice when they stand there twice; each byte is a character
// Proves: A header with a comment behind it, or indented => is none; a release that stands only there is not found
// Proves: Saved as UTF-16 => no section is seen, the release is empty
TEST_P(InfSections, AreTheLinesThatAreAHeaderAndNothingElse)
{
    const TemporaryFolder folder;
    LogCapture log;
    EXPECT_EQ(ReadInfSectionNames(folder.WriteBytes(L"x.inf", GetParam().bytes)), GetParam().sections);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, InfSections,
    testing::Values(
        InfText{"file order, duplicates kept", "[b]\r\nx=1\r\n[a]\r\n[b]\r\n", {L"b", L"a", L"b"}},
        InfText{"line feeds alone", "[a]\n\n[b]\n", {L"a", L"b"}},
        InfText{"no line end at the end", "[a]\r\n[b]", {L"a", L"b"}},
        InfText{"comment behind", "[a] ; words\r\n[b];words\r\n[c]\r\n", {L"c"}},
        InfText{"indented", " [a]\r\n\t[b]\r\n[c] \r\n[d]\r\n", {L"d"}},
        InfText{"brackets inside", "[]\n[[x]]\n[a]b]\n", {L"", L"[x]", L"a]b"}},
        InfText{"not closed", "[a\n]\n[b]\n", {L"b"}},
        InfText{"carriage return inside the line", "[a]\r[b]\n[c\r]\n[d]\r\r\n[e]\n", {L"e"}},
        InfText{"letter case stays", "[aBc]\n", {L"aBc"}},
        InfText{"each byte is a character", "[\xc3\xa9\x80\xff]\n", {L"\u00c3\u00a9\u0080\u00ff"}},
        InfText{"NUL is a character", std::string("[a\0b]\n[c]\0\n[d]\n", 15), {std::wstring(L"a\0b", 3), L"d"}},
        InfText{"UTF-8 mark before the first line", "\xef\xbb\xbf[a]\r\n[b]\r\n", {L"b"}},
        InfText{"UTF-16", Utf16("[a]\r\n[b]\r\nx\r\n"), {}},
        InfText{"end-of-file byte", "[a]\n[b]\x1a\n[c]\n", {L"a", L"b"}}, InfText{"empty file", "", {}},
        InfText{"empty lines", "\n\n\n", {}}));

// Proves: The file does not exist or cannot be opened as text => no section names, no exception
TEST(InfSectionNames, FileThatCannotBeOpenedHasNone)
{
    const TemporaryFolder folder;
    const std::wstring locked = folder.WriteBytes(L"locked.inf", "[a]\n");
    const FileHandle lock(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(static_cast<bool>(lock));
    EXPECT_THAT(ReadInfSectionNames(locked), IsEmpty());
    EXPECT_THAT(ReadInfSectionNames(folder / L"missing.inf"), IsEmpty());
    EXPECT_THAT(ReadInfSectionNames(folder.Path()), IsEmpty());
    EXPECT_THAT(ReadInfSectionNames(L""), IsEmpty());
}

// Proves: Another program writes the file and shares it; names of any language => it is read, and closed afterwards
TEST(InfSectionNames, FileThatAWriterHoldsIsReadWhenTheWriterShares)
{
    const TemporaryFolder folder;
    const std::wstring path = folder.WriteBytes(L"x.inf", "[a]\n");
    const FileHandle writer(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(static_cast<bool>(writer));
    EXPECT_THAT(ReadInfSectionNames(path), ElementsAre(L"a"));
}

TEST(InfSectionNames, NameOfAnyLanguageInThePath)
{
    const TemporaryFolder folder;
    EXPECT_THAT(ReadInfSectionNames(folder.WriteBytes(L"\u4e00\u00e9 x.inf", "[a]\n")), ElementsAre(L"a"));
}

TEST(InfSectionNames, FileIsClosedAfterwards)
{
    const TemporaryFolder folder;
    const std::wstring path = folder.WriteBytes(L"x.inf", "[a]\n");
    ReadInfSectionNames(path);
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE);
}

// Proves: Lines of a million characters, headers at the border of two reads => no trouble
TEST(InfSectionNames, HostileLongLinesAreNoTrouble)
{
    const TemporaryFolder folder;
    const std::string filler(1'000'000, 'x');
    const std::wstring path = folder.WriteBytes(L"x.inf", "[" + filler + "\n[" + filler + "]\n" + filler + "\n[end]\n");
    const std::list<std::wstring> sections = ReadInfSectionNames(path);
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(sections.front(), std::wstring(1'000'000, L'x'));
    EXPECT_EQ(sections.back(), L"end");
}

// Reads `path` on a thread whose stack is as small as the system makes them.
std::list<std::wstring> SectionsReadOnASmallStack(std::wstring path)
{
    struct Reading
    {
        std::wstring path;
        std::list<std::wstring> sections;
    } reading{std::move(path), {}};
    constexpr DWORD kStackBytes = 65'536;
    const auto read = [](void* context) -> DWORD {
        Reading& one = *static_cast<Reading*>(context);
        one.sections = ReadInfSectionNames(one.path);
        return 0;
    };
    const HANDLE thread =
        CreateThread(nullptr, kStackBytes, read, &reading, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    EXPECT_NE(thread, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    return std::move(reading.sections);
}

// Proves: An INF of 64 MiB without a line end, or two million odd lines => read in constant stack, matched as the expressions say
TEST(InfSectionNames, LineOf64MebibytesIsReadInConstantStack)
{
    const TemporaryFolder folder;
    const std::string filler(64 * 1024 * 1024, 'x');
    const std::wstring open = folder.WriteBytes(L"open.inf", "[" + filler + "\n[end]\n");
    EXPECT_THAT(SectionsReadOnASmallStack(open), ElementsAre(L"end"));
    const std::wstring closed = folder.WriteBytes(L"closed.inf", "[" + filler + "]\n[end]\n");
    const std::list<std::wstring> sections = SectionsReadOnASmallStack(closed);
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(sections.front().size(), filler.size());
}

TEST(InfSectionNames, HeaderIsFoundWhereverTheReadingBlocksEnd)
{
    const TemporaryFolder folder;
    for (const char* lineEnd : {"\n", "\r\n"})
    {
        for (size_t offset = 65'536 - 10; offset < 65'536 + 4; ++offset)
        {
            const std::string end = lineEnd;
            const std::string content =
                std::string(offset - end.size(), 'x') + end + "[Name]" + end + "y" + end + "[Next]" + end;
            EXPECT_THAT(ReadInfSectionNames(folder.WriteBytes(L"x.inf", content)), ElementsAre(L"Name", L"Next"))
                << offset;
        }
    }
}

// As the reader is defined: a wide text stream, a line at a time, and the expression.
std::list<std::wstring> SectionsByStream(const std::wstring& path)
{
    std::list<std::wstring> names;
    std::wifstream file(path.c_str());
    const std::wregex expression(LR"(\[(.*)\])", std::regex::icase);
    std::wstring line;
    std::wsmatch match;
    while (std::getline(file, line))
    {
        if (std::regex_match(line, match, expression))
        {
            names.push_back(match[1].str());
        }
    }
    return names;
}

TEST(InfSectionNames, OfGeneratedFilesAreThoseOfAWideTextStream)
{
    const TemporaryFolder folder;
    std::mt19937 random(7);
    const std::vector<std::string> pieces = {
        "[",    "]",    "[",     "]\n",     "]\r\n", "\n", "\r\n", "\r", "a", "Name", " ", ";", std::string(1, '\0'),
        "\xe9", "\xff", "[x]\n", "[y]\r\n", "\t",    "=",  "\x1a"};
    size_t found = 0;
    for (int file = 0; file < 150; ++file)
    {
        std::string content;
        for (int piece = 0; piece < 120; ++piece)
        {
            size_t index = random() % pieces.size();
            if (pieces[index] == "\x1a" && random() % 20 != 0)
            {
                index = 0;  // a file that ends early says little
            }
            content += pieces[index];
        }
        const std::wstring path = folder.WriteBytes(L"x.inf", content);
        const std::list<std::wstring> expected = SectionsByStream(path);
        ASSERT_EQ(ReadInfSectionNames(path), expected) << file;
        found += expected.size();
    }
    EXPECT_GT(found, 500u);
}

const char kVersion[] = "[Version]\r\nSignature=\"$Windows NT$\"\r\n";

struct InfRelease
{
    const char* description;
    std::string bytes;
    std::wstring release;
};

std::ostream& operator<<(std::ostream& out, const InfRelease& inf)
{
    return out << inf.description;
}

class InfReleaseVersion : public testing::TestWithParam<InfRelease>
{
};

// Proves: The release line in any letter case => it counts
// Proves: The value is a string key => the text of the strings section
// Proves: Several release lines => the last one of the last section wins, also when it is empty
// Proves: No matching line, no section => empty; the file is closed
// Proves: Any of these => nothing is logged
TEST_P(InfReleaseVersion, IsTheValueOfTheLastMatchingLine)
{
    const TemporaryFolder folder;
    LogCapture log;
    EXPECT_EQ(ReadInfReleaseVersion(folder.WriteBytes(L"x.inf", GetParam().bytes)), GetParam().release);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, InfReleaseVersion,
    testing::Values(
        InfRelease{"plain", kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n"), L"22.5.1"},
        InfRelease{"lower case", kVersion + std::string("[S]\r\nhkr,,releaseversion,,22.5.1\r\n"), L"22.5.1"},
        InfRelease{"blanks around the fields", kVersion + std::string("[S]\r\n HKR , , ReleaseVersion , , 22.5.1 \r\n"),
                   L"22.5.1"},
        InfRelease{"string key",
                   kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,%Rel%\r\n[Strings]\r\nRel=\"24.20-a b\"\r\n"),
                   L"24.20-a b"},
        InfRelease{"quoted", kVersion + std::string("[S]\r\nHKR,,\"ReleaseVersion\",,\"22.5.1\"\r\n"), L"22.5.1"},
        InfRelease{"comment behind the line", kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,22.5.1 ; x\r\n"),
                   L"22.5.1"},
        InfRelease{"several fields of a value", kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,a, b\r\n"), L"a,b"},
        InfRelease{"last in a section",
                   kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,1\r\nHKR,,Other,,9\r\n"
                                          "HKR,,ReleaseVersion,,2\r\nHKR,,More,,9\r\n"),
                   L"2"},
        InfRelease{"last section",
                   kVersion + std::string("[B]\r\nHKR,,ReleaseVersion,,1\r\n[A]\r\nHKR,,ReleaseVersion,,2\r\n[C]\r\n"),
                   L"2"},
        InfRelease{"a section that returns is searched again, with all its lines",
                   kVersion + std::string("[B]\r\nHKR,,ReleaseVersion,,1\r\n[A]\r\nHKR,,ReleaseVersion,,2\r\n[B]\r\n"),
                   L"1"},
        InfRelease{"without a value the last still wins",
                   kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,1\r\nHKR,,ReleaseVersion,,\r\n"), L""},
        InfRelease{"flags in the line", kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,0,22.5.1\r\n"), L""},
        InfRelease{"header with a comment", kVersion + std::string("[S] ; words\r\nHKR,,ReleaseVersion,,22.5.1\r\n"),
                   L""},
        InfRelease{"indented header", kVersion + std::string("  [S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n"), L""},
        InfRelease{"no such line", kVersion + std::string("[S]\r\nHKR,,Other,,22.5.1\r\n"), L""},
        InfRelease{"UTF-16", Utf16(kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n")), L""},
        InfRelease{"no version section", "[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n", L""},
        InfRelease{"unknown signature", "[Version]\r\nSignature=x\r\n[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n", L""},
        InfRelease{"empty file", "", L""}));

// A value of several fields, none longer than SetupAPI's own limit.
std::string LongValue(size_t characters)
{
    std::string value;
    while (value.size() < characters)
    {
        value += value.size() % 500 == 499 ? ',' : 'v';
    }
    return value;
}

TEST(InfReleaseVersions, LineOf2063CharactersFitsALongerOneIsPassedOver)
{
    const TemporaryFolder folder;
    constexpr size_t kPrefix = 21;  // HKR,,ReleaseVersion,,
    const std::string start = kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,first\r\nHKR,,ReleaseVersion,,");
    const std::string longest = LongValue(2063 - kPrefix);
    EXPECT_EQ(ReadInfReleaseVersion(folder.WriteBytes(L"a.inf", start + longest + "\r\n")),
              std::wstring(longest.begin(), longest.end()));
    EXPECT_EQ(ReadInfReleaseVersion(folder.WriteBytes(L"b.inf", start + LongValue(2064 - kPrefix) + "\r\n")), L"first");
    EXPECT_EQ(ReadInfReleaseVersion(folder.WriteBytes(
                  L"c.inf", start + LongValue(3000) + "\r\nHKR,,Other,,1\r\nHKR,,ReleaseVersion,,last\r\n")),
              L"last");
}

TEST(InfReleaseVersions, FileThatCannotBeOpenedHasNone)
{
    const TemporaryFolder folder;
    EXPECT_EQ(ReadInfReleaseVersion(folder / L"missing.inf"), L"");
    EXPECT_EQ(ReadInfReleaseVersion(folder / L"missing\\missing.inf"), L"");
    EXPECT_EQ(ReadInfReleaseVersion(folder.Path()), L"");
    EXPECT_EQ(ReadInfReleaseVersion(L""), L"");
}

// A made-up INF of SetupAPI over a file that holds the section names.
class MadeUpInf : public testing::Test
{
protected:
    std::wstring WriteHeaders(const std::string& names) const { return folder_.WriteBytes(L"x.inf", names); }

    HINF Handle() { return &handle_; }

    TemporaryFolder folder_;
    int handle_ = 0;
    std::vector<std::wstring> calls_;
    std::vector<std::wstring> lines_;  // of each section; an empty one cannot be fetched

    SUBSTITUTE(SetupOpenInfFileW)
    open_{[this](const wchar_t* path, const wchar_t* infClass, DWORD style, UINT* errorLine) -> HINF {
        EXPECT_EQ(std::wstring(path), folder_ / L"x.inf");
        EXPECT_EQ(infClass, nullptr);
        EXPECT_EQ(style, 2u);
        EXPECT_NE(errorLine, nullptr);
        calls_.push_back(L"open");
        return Handle();
    }};
    SUBSTITUTE(SetupFindFirstLineW)
    first_{[this](HINF inf, const wchar_t* section, const wchar_t* key, INFCONTEXT* context) {
        EXPECT_EQ(inf, Handle());
        EXPECT_EQ(key, nullptr);
        calls_.push_back(std::wstring(L"find ") + section);
        context->Line = 0;
        return lines_.empty() ? FailWith(ERROR_LINE_NOT_FOUND) : TRUE;
    }};
    SUBSTITUTE(SetupGetLineTextW)
    text_{[this](INFCONTEXT* context, HINF inf, const wchar_t* section, const wchar_t* key, wchar_t* buffer,
                 DWORD characters, DWORD* needed) {
        EXPECT_EQ(inf, nullptr);
        EXPECT_EQ(section, nullptr);
        EXPECT_EQ(key, nullptr);
        EXPECT_EQ(characters, 2064u);
        EXPECT_EQ(needed, nullptr);
        const std::wstring& line = lines_[context->Line];
        if (line.empty())
        {
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        line.copy(buffer, line.size());
        buffer[line.size()] = L'\0';
        return TRUE;
    }};
    SUBSTITUTE(SetupFindNextLine)
    next_{[this](INFCONTEXT* from, INFCONTEXT* to) {
        to->Line = from->Line + 1;
        return to->Line < lines_.size() ? TRUE : FALSE;
    }};
    SUBSTITUTE(SetupCloseInfFile)
    close_{[this](HINF inf) {
        EXPECT_EQ(inf, Handle());
        calls_.push_back(L"close");
    }};
};

// Proves: A section name stands there twice => it is searched twice
TEST_F(MadeUpInf, SectionsAreSearchedInListOrderDuplicatesToo)
{
    const std::wstring path = WriteHeaders("[B]\n[a]\n[B]\n[]\n");
    EXPECT_EQ(ReadInfReleaseVersion(path), L"");
    EXPECT_THAT(calls_, ElementsAre(L"open", L"find B", L"find a", L"find B", L"find ", L"close"));
}

// Proves: A line that cannot be fetched, or is longer than 2,063 characters => passed over
TEST_F(MadeUpInf, LineThatCannotBeFetchedIsPassedOver)
{
    const std::wstring path = WriteHeaders("[S]\n");
    lines_ = {L"HKR,,ReleaseVersion,,1", L"", L"HKR,,ReleaseVersion,,2", L"x", L""};
    EXPECT_EQ(ReadInfReleaseVersion(path), L"2");
    EXPECT_THAT(calls_, ElementsAre(L"open", L"find S", L"close"));
}

// Proves: A line that matches only in part => does not count
TEST_F(MadeUpInf, TextIsMatchedAsAWhole)
{
    const std::wstring path = WriteHeaders("[S]\n");
    lines_ = {L"HKR,,ReleaseVersion,,1", L"HKR,,ReleaseVersion,,2\r", L"xHKR,,ReleaseVersion,,3"};
    EXPECT_EQ(ReadInfReleaseVersion(path), L"1");
}

TEST_F(MadeUpInf, WithoutSectionsTheFileIsStillOpenedAndClosed)
{
    const std::wstring path = WriteHeaders("; words\n");
    EXPECT_EQ(ReadInfReleaseVersion(path), L"");
    EXPECT_THAT(calls_, ElementsAre(L"open", L"close"));
}

// Proves: The system rejects the file => empty; nothing is closed that was not opened
TEST_F(MadeUpInf, WhatWasNotOpenedIsNotClosed)
{
    const std::wstring path = WriteHeaders("[S]\n");
    SUBSTITUTE(SetupOpenInfFileW)
    refuse([](auto...) -> HINF { return FailWith(ERROR_WRONG_INF_STYLE, INVALID_HANDLE_VALUE); });
    EXPECT_EQ(ReadInfReleaseVersion(path), L"");
    EXPECT_THAT(calls_, IsEmpty());
}
}  // namespace
}  // namespace repair
