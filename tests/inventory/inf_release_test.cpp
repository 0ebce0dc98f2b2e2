#include <windows.h>

#include <setupapi.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <list>
#include <new>
#include <random>
#include <regex>

#include "base/handles.h"
#include "inventory/inf_release.h"
#include "support/log_capture.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(SetupCloseInfFile, SetupFindFirstLineW, SetupFindNextLine, SetupGetLineTextW, SetupOpenInfFileW)

namespace repair
{
namespace
{
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

// Tests that read INF files of their own.
class InfTest : public testing::Test
{
protected:
    std::list<std::wstring> SectionsOf(const std::string& bytes) const
    {
        return ReadInfSectionNames(folder_.WriteBytes(L"x.inf", bytes));
    }
    std::wstring ReleaseOf(const std::string& bytes) const
    {
        return ReadInfReleaseVersion(folder_.WriteBytes(L"x.inf", bytes));
    }

    TemporaryFolder folder_;
};

struct InfText
{
    const char* description;
    std::string bytes;
    std::list<std::wstring> sections;
};

// Proves: Section names are read => whole lines in brackets, in file order, twice when they occur twice; each byte is a character
// Proves: A header with a comment after it, or indented => is none; a release in such a section is not found
// Proves: Saved as UTF-16 => no section is seen, the release is empty
TEST_F(InfTest, SectionsAreTheLinesThatAreAHeaderAndNothingElse)
{
    const InfText files[] = {
        {"file order, duplicates kept", "[b]\r\nx=1\r\n[a]\r\n[b]\r\n", {L"b", L"a", L"b"}},
        {"line feeds alone", "[a]\n\n[b]\n", {L"a", L"b"}},
        {"no line end at the end", "[a]\r\n[b]", {L"a", L"b"}},
        {"comment behind", "[a] ; words\r\n[b];words\r\n[c]\r\n", {L"c"}},
        {"indented", " [a]\r\n\t[b]\r\n[c] \r\n[d]\r\n", {L"d"}},
        {"brackets inside", "[]\n[[x]]\n[a]b]\n", {L"", L"[x]", L"a]b"}},
        {"not closed", "[a\n]\n[b]\n", {L"b"}},
        {"carriage return inside the line", "[a]\r[b]\n[c\r]\n[d]\r\r\n[e]\n", {L"e"}},
        {"letter case stays", "[aBc]\n", {L"aBc"}},
        {"each byte is a character", "[\xc3\xa9\x80\xff]\n", {L"\u00c3\u00a9\u0080\u00ff"}},
        {"NUL is a character", std::string("[a\0b]\n[c]\0\n[d]\n", 15), {std::wstring(L"a\0b", 3), L"d"}},
        {"UTF-8 mark before the first line", "\xef\xbb\xbf[a]\r\n[b]\r\n", {L"b"}},
        {"UTF-16", Utf16("[a]\r\n[b]\r\nx\r\n"), {}},
        {"end-of-file byte", "[a]\n[b]\x1a\n[c]\n", {L"a", L"b"}},
        {"empty file", "", {}},
        {"empty lines", "\n\n\n", {}}};
    const LogCapture log;
    for (const InfText& file : files)
    {
        EXPECT_EQ(SectionsOf(file.bytes), file.sections) << file.description;
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: The file does not exist or cannot be opened as text => no section names, no exception
// Proves: Another program writes the file and shares it; names of any language => it is read, and closed afterwards
TEST_F(InfTest, FileThatAWriterSharesIsReadAndOneThatCannotBeOpenedHasNothing)
{
    const std::wstring locked = folder_.WriteBytes(L"locked.inf", "[a]\n");
    const FileHandle lock(CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    const std::wstring path = folder_.WriteBytes(L"\u4e00\u00e9 x.inf", "[a]\n");
    FileHandle writer(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(writer && lock);
    EXPECT_THAT(ReadInfSectionNames(path), ElementsAre(L"a"));
    writer.Close();
    EXPECT_NE(DeleteFileW(path.c_str()), FALSE);
    for (const std::wstring& other :
         {locked, folder_ / L"missing.inf", folder_ / L"missing\\missing.inf", folder_.Path(), std::wstring()})
    {
        EXPECT_THAT(ReadInfSectionNames(other), IsEmpty()) << PrintToString(other);
        EXPECT_EQ(ReadInfReleaseVersion(other), L"") << PrintToString(other);
    }
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

// Proves: Lines of a million characters, headers at the border of two reads => are read
// Proves: An INF of 64 MiB without a line end, or unusual lines => read in constant stack, matched as the expressions say
TEST_F(InfTest, LineOf64MebibytesIsReadInConstantStack)
{
    const std::string filler(64 * 1024 * 1024, 'x');
    const std::wstring open = folder_.WriteBytes(L"open.inf", "[" + filler + "\n[end]\n");
    EXPECT_THAT(SectionsReadOnASmallStack(open), ElementsAre(L"end"));
    const std::wstring closed = folder_.WriteBytes(L"closed.inf", "[" + filler + "]\n[end]\n");
    const std::list<std::wstring> sections = SectionsReadOnASmallStack(closed);
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(sections.front().size(), filler.size());
}

TEST_F(InfTest, HeaderIsFoundWhereverTheReadingBlocksEnd)
{
    for (const std::string& end : {std::string("\n"), std::string("\r\n")})
    {
        for (size_t offset = 65'536 - 10; offset < 65'536 + 4; ++offset)
        {
            EXPECT_THAT(
                SectionsOf(std::string(offset - end.size(), 'x') + end + "[Name]" + end + "y" + end + "[Next]" + end),
                ElementsAre(L"Name", L"Next"))
                << offset;
        }
    }
    std::string text;  // a header at every distance from the one before, and nothing else for a while
    for (size_t distance = 0; distance < 1200; ++distance)
    {
        text += std::string(distance, 'x') + "\n[near]\n" + std::string(1200, 'y') + "\n[far]\n";
    }
    EXPECT_THAT(SectionsOf(text), SizeIs(2400));
}

// The reference: reads a wide text stream line by line and matches the expression.
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

TEST_F(InfTest, SectionsOfGeneratedFilesAreThoseOfAWideTextStream)
{
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
                index = 0;  // a file that ends early tests little
            }
            content += pieces[index];
            if (random() % 10 == 0)  // the file is scanned in groups of hundreds of bytes where nothing happens
            {
                content += std::string(random() % 1500, 'x') + '\n';
            }
        }
        const std::wstring path = folder_.WriteBytes(L"x.inf", content);
        const std::list<std::wstring> expected = SectionsByStream(path);
        ASSERT_EQ(ReadInfSectionNames(path), expected) << file;
        found += expected.size();
    }
    EXPECT_GT(found, 500u);
}

// The fastest of five readings, in seconds.
double SecondsToRead(const std::wstring& path)
{
    double best = 1e9;
    for (int round = 0; round < 5; ++round)
    {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_THAT(ReadInfSectionNames(path), IsEmpty());
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return best;
}

// Proves: Millions of brackets inside the lines of an INF => they cost about as much time as plain text
TEST_F(InfTest, BracketsInsideLinesTakeNoLongerThanPlainText)
{
    constexpr size_t kBytes = 16 * 1024 * 1024;
    const double plain = SecondsToRead(folder_.WriteBytes(L"plain.inf", std::string(kBytes, 'x')));
    for (const size_t distance : {2u, 30u, 600u})
    {
        std::string text(kBytes, 'x');
        for (size_t at = distance - 1; at < kBytes; at += distance)
        {
            text[at] = '[';
        }
        EXPECT_LT(SecondsToRead(folder_.WriteBytes(L"brackets.inf", text)), 3 * plain) << distance;
    }
}

const char kVersion[] = "[Version]\r\nSignature=\"$Windows NT$\"\r\n";

struct InfRelease
{
    const char* description;
    std::string lines;
    std::wstring release;
    std::string beginning = kVersion;
};

// Proves: The release line in any letter case => it counts
// Proves: The value is a string key => the text of the strings section
// Proves: Several release lines => the last one of the last section wins, also when it is empty
// Proves: No matching line, no section => empty; the file is closed
// Proves: Any of these => nothing is logged
TEST_F(InfTest, ReleaseIsTheValueOfTheLastMatchingLine)
{
    const InfRelease files[] = {
        {"plain", "[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n", L"22.5.1"},
        {"lower case", "[S]\r\nhkr,,releaseversion,,22.5.1\r\n", L"22.5.1"},
        {"blanks around the fields", "[S]\r\n HKR , , ReleaseVersion , , 22.5.1 \r\n", L"22.5.1"},
        {"string key", "[S]\r\nHKR,,ReleaseVersion,,%Rel%\r\n[Strings]\r\nRel=\"24.20-a b\"\r\n", L"24.20-a b"},
        {"quoted", "[S]\r\nHKR,,\"ReleaseVersion\",,\"22.5.1\"\r\n", L"22.5.1"},
        {"comment behind the line", "[S]\r\nHKR,,ReleaseVersion,,22.5.1 ; x\r\n", L"22.5.1"},
        {"several fields of a value", "[S]\r\nHKR,,ReleaseVersion,,a, b\r\n", L"a,b"},
        {"last in a section",
         "[S]\r\nHKR,,ReleaseVersion,,1\r\nHKR,,Other,,9\r\n"
         "HKR,,ReleaseVersion,,2\r\nHKR,,More,,9\r\n",
         L"2"},
        {"last section", "[B]\r\nHKR,,ReleaseVersion,,1\r\n[A]\r\nHKR,,ReleaseVersion,,2\r\n[C]\r\n", L"2"},
        {"a section that returns is searched again, with all its lines",
         "[B]\r\nHKR,,ReleaseVersion,,1\r\n[A]\r\nHKR,,ReleaseVersion,,2\r\n[B]\r\n", L"1"},
        {"without a value the last still wins", "[S]\r\nHKR,,ReleaseVersion,,1\r\nHKR,,ReleaseVersion,,\r\n", L""},
        {"flags in the line", "[S]\r\nHKR,,ReleaseVersion,0,22.5.1\r\n", L""},
        {"header with a comment", "[S] ; words\r\nHKR,,ReleaseVersion,,22.5.1\r\n", L""},
        {"indented header", "  [S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n", L""},
        {"no such line", "[S]\r\nHKR,,Other,,22.5.1\r\n", L""},
        {"UTF-16", Utf16(kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n")), L"", ""},
        {"no version section", "[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n", L"", ""},
        {"unknown signature", "[S]\r\nHKR,,ReleaseVersion,,22.5.1\r\n", L"", "[Version]\r\nSignature=x\r\n"},
        {"empty file", "", L"", ""}};
    const LogCapture log;
    for (const InfRelease& file : files)
    {
        EXPECT_EQ(ReleaseOf(file.beginning + file.lines), file.release) << file.description;
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

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

TEST_F(InfTest, LineOf2063CharactersFitsALongerOneIsPassedOver)
{
    constexpr size_t kPrefix = 21;  // HKR,,ReleaseVersion,,
    const std::string start = kVersion + std::string("[S]\r\nHKR,,ReleaseVersion,,first\r\nHKR,,ReleaseVersion,,");
    const std::string longest = LongValue(2063 - kPrefix);
    EXPECT_EQ(ReleaseOf(start + longest + "\r\n"), std::wstring(longest.begin(), longest.end()));
    EXPECT_EQ(ReleaseOf(start + LongValue(2064 - kPrefix) + "\r\n"), L"first");
    EXPECT_EQ(ReleaseOf(start + LongValue(3000) + "\r\nHKR,,Other,,1\r\nHKR,,ReleaseVersion,,last\r\n"), L"last");
}

// SetupAPI's INF functions answered by the test, over a file that holds the section names.
class FakeInf : public InfTest
{
protected:
    std::vector<std::wstring> calls_;
    std::vector<std::wstring> lines_;  // of each section; an empty one cannot be fetched

    SUBSTITUTE(SetupOpenInfFileW)
    open_{[this](const wchar_t* path, const wchar_t* infClass, DWORD style, UINT* errorLine) -> HINF {
        EXPECT_EQ(path, folder_ / L"x.inf");
        EXPECT_EQ(std::tuple(infClass, style), std::tuple(nullptr, 2u));
        EXPECT_NE(errorLine, nullptr);
        calls_.push_back(L"open");
        return this;
    }};
    SUBSTITUTE(SetupFindFirstLineW)
    first_{[this](HINF inf, const wchar_t* section, const wchar_t* key, INFCONTEXT* context) {
        EXPECT_EQ(inf, this);
        EXPECT_EQ(key, nullptr);
        calls_.push_back(std::wstring(L"find ") + section);
        context->Line = 0;
        return lines_.empty() ? FailWith(ERROR_LINE_NOT_FOUND) : TRUE;
    }};
    SUBSTITUTE(SetupGetLineTextW)
    text_{[this](INFCONTEXT* context, HINF inf, const wchar_t* section, const wchar_t* key, wchar_t* buffer,
                 DWORD characters, DWORD* needed) {
        EXPECT_EQ(std::tuple(inf, section, key, characters, needed),
                  std::tuple(nullptr, nullptr, nullptr, 2064u, nullptr));
        wcscpy(buffer, lines_[context->Line].c_str());
        return lines_[context->Line].empty() ? FailWith(ERROR_INSUFFICIENT_BUFFER) : TRUE;
    }};
    SUBSTITUTE(SetupFindNextLine)
    next_{[this](INFCONTEXT* from, INFCONTEXT* to) {
        to->Line = from->Line + 1;
        return to->Line < lines_.size() ? TRUE : FALSE;
    }};
    SUBSTITUTE(SetupCloseInfFile)
    close_{[this](HINF inf) {
        EXPECT_EQ(inf, this);
        calls_.push_back(L"close");
    }};
};

// Proves: A section name occurs twice => it is searched twice
TEST_F(FakeInf, SectionsAreSearchedInListOrderDuplicatesToo)
{
    EXPECT_EQ(ReleaseOf("[B]\n[a]\n[B]\n[]\n"), L"");
    EXPECT_THAT(calls_, ElementsAre(L"open", L"find B", L"find a", L"find B", L"find ", L"close"));
    EXPECT_EQ(ReleaseOf("; words\n"), L"");
    EXPECT_THAT(calls_, Contains(L"open").Times(2));
}

// Proves: A line that cannot be fetched, or is longer than 2,063 characters => skipped
TEST_F(FakeInf, LineThatCannotBeFetchedIsPassedOver)
{
    lines_ = {L"HKR,,ReleaseVersion,,1", L"", L"HKR,,ReleaseVersion,,2", L"x", L""};
    EXPECT_EQ(ReleaseOf("[S]\n"), L"2");
    EXPECT_THAT(calls_, ElementsAre(L"open", L"find S", L"close"));
}

// Proves: A line that matches only in part => does not count
TEST_F(FakeInf, LineIsMatchedAsAWhole)
{
    lines_ = {L"HKR,,ReleaseVersion,,1", L"HKR,,ReleaseVersion,,2\r", L"xHKR,,ReleaseVersion,,3"};
    EXPECT_EQ(ReleaseOf("[S]\n"), L"1");
}

// Proves: The system rejects the file => empty; nothing is closed that was not opened
TEST_F(FakeInf, FileThatWasNotOpenedIsNotClosed)
{
    SUBSTITUTE(SetupOpenInfFileW)
    refuse([](auto...) -> HINF { return FailWith(ERROR_WRONG_INF_STYLE, INVALID_HANDLE_VALUE); });
    EXPECT_EQ(ReleaseOf("[S]\n"), L"");
    EXPECT_THAT(calls_, IsEmpty());
}

// Proves: Memory runs out on the way => the exception reaches the caller, the file is closed
TEST_F(FakeInf, FileIsClosedWhenAnExceptionPassesThrough)
{
    SUBSTITUTE(SetupFindFirstLineW) first([](auto...) -> BOOL { throw std::bad_alloc(); });
    EXPECT_THROW(ReleaseOf("[S]\n"), std::bad_alloc);
    EXPECT_THAT(calls_, ElementsAre(L"open", L"close"));
}
}  // namespace
}  // namespace repair
