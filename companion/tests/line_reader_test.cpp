#include "companion/line_reader.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace repair;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
struct Read
{
    std::vector<std::string> lines;
    Damage damage;
    Encoding encoding = Encoding::kUtf8;
};

Read ReadAll(std::string_view bytes, size_t pieceSize = 1)
{
    Read read;
    LineReader reader([&read](const Line& line) { read.lines.emplace_back(line.text); });
    for (; !bytes.empty(); bytes.remove_prefix(std::min(pieceSize, bytes.size())))
    {
        reader.Feed(bytes.substr(0, pieceSize));
    }
    reader.Finish();
    read.damage = reader.GetDamage();
    read.encoding = reader.GetEncoding();
    return read;
}

std::string Bytes(std::u16string_view text, bool bigEndian = false)
{
    std::string bytes;
    for (const char16_t unit : text)
    {
        const char low = static_cast<char>(unit & 0xFF);
        const char high = static_cast<char>(unit >> 8);
        bytes.push_back(bigEndian ? high : low);
        bytes.push_back(bigEndian ? low : high);
    }
    return bytes;
}

constexpr std::u16string_view kText = u"Grüße\n\t€ 😀\n\nend\n";
const auto kLines = ElementsAre("Grüße", "\t€ 😀", "", "end");
}  // namespace

TEST(LineReader, ReadsWhatTheToolWrites)
{
    const Read read = ReadAll(Bytes(kText));
    EXPECT_THAT(read.lines, kLines);
    EXPECT_FALSE(read.damage.IsAny());
    EXPECT_EQ(read.encoding, Encoding::kUtf16Le);
}

TEST(LineReader, ReadsOtherEncodings)
{
    EXPECT_THAT(ReadAll("\xFF\xFE" + Bytes(kText)).lines, kLines);
    EXPECT_THAT(ReadAll("\xFE\xFF" + Bytes(kText, true)).lines, kLines);
    EXPECT_THAT(ReadAll("Grüße\n\t€ 😀\n\nend\n").lines, kLines);
    EXPECT_THAT(ReadAll("\xEF\xBB\xBFGrüße\r\n\t€ 😀\r\n\r\nend\r\n").lines, kLines);
    EXPECT_THAT(ReadAll(Bytes(u"Grüße\r\n\t€ 😀\r\n\r\nend\r\n")).lines, kLines);
}

TEST(LineReader, FindsTheCharactersOfALogThatHasLostItsFirstByte)
{
    const Read read = ReadAll(Bytes(u"xGrüße\nend\n").substr(1));
    EXPECT_THAT(read.lines, ElementsAre("Grüße", "end"));
    EXPECT_TRUE(read.damage.cutAtStart);
}

TEST(LineReader, ReportsWhereALogWasCut)
{
    Read read = ReadAll(Bytes(u"one\ntwo"));
    EXPECT_THAT(read.lines, ElementsAre("one", "two"));
    EXPECT_TRUE(read.damage.lastLineOpen);
    EXPECT_FALSE(read.damage.cutAtEnd);
    read = ReadAll(Bytes(u"one\ntwo") + "x");
    EXPECT_THAT(read.lines, ElementsAre("one", "two\xEF\xBF\xBD"));
    EXPECT_TRUE(read.damage.cutAtEnd);
    read = ReadAll(Bytes(u"one\n😀").substr(0, 10));
    EXPECT_THAT(read.lines, ElementsAre("one", "\xEF\xBF\xBD"));
    EXPECT_TRUE(read.damage.cutAtEnd);
    read = ReadAll("one two three \xE2\x82");
    EXPECT_THAT(read.lines, ElementsAre("one two three \xEF\xBF\xBD"));
    EXPECT_TRUE(read.damage.cutAtEnd);
    EXPECT_THAT(DescribeDamage(read.damage),
                ElementsAre("it ends in the middle of a character", "its last line is not complete",
                            "1 of its characters cannot be read"));
}

TEST(LineReader, ReplacesInvalidCharacters)
{
    const char16_t torn[] = {u'a', 0xDC00, u'b', 0xD800, u'c', 0xD800, 0xD800, 0xDC00, 0, u'\n'};
    const Read read = ReadAll(Bytes(u"an ordinary line\n") + Bytes({torn, std::size(torn)}));
    EXPECT_THAT(read.lines, ElementsAre("an ordinary line", "a\uFFFDb\uFFFDc\uFFFD\U00010000\uFFFD"));
    EXPECT_EQ(read.damage.unreadable, 4U);
    // An overlong form, a surrogate, a value beyond the last character, and bytes that cannot begin a character.
    for (const char* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xFF", "\xE0\x80\x80"})
    {
        EXPECT_THAT(ReadAll(std::string("text ") + bad + " text\n").lines.front(), testing::HasSubstr("\uFFFD")) << bad;
    }
}

TEST(LineReader, HasNoLinesWithoutBytes)
{
    EXPECT_THAT(ReadAll("").lines, IsEmpty());
    EXPECT_THAT(ReadAll("\xFF\xFE").lines, IsEmpty());
    EXPECT_FALSE(ReadAll("").damage.IsAny());
}

TEST(LineReader, PassesALineThatIsTooLongInPieces)
{
    std::vector<std::pair<bool, bool>> ends;
    size_t total = 0;
    LineReader reader([&](const Line& line) {
        EXPECT_LE(line.text.size(), LineReader::kLongestPiece);
        total += line.text.size();
        ends.emplace_back(line.begins, line.ends);
    });
    reader.Feed(Bytes(std::u16string(3 * LineReader::kLongestPiece, u'x') + u"\nend\n"));
    reader.Finish();
    EXPECT_EQ(total, 3 * LineReader::kLongestPiece + 3);
    EXPECT_THAT(ends, ElementsAre(std::pair(true, false), std::pair(false, false), std::pair(false, true),
                                  std::pair(true, true)));
    EXPECT_EQ(reader.GetDamage().overlongLines, 1U);
}

TEST(LineReader, DoesNotDependOnThePiecesOfTheLog)
{
    const std::string bytes = Bytes(std::u16string(5000, u'a') + std::u16string(kText));
    const Read whole = ReadAll(bytes, bytes.size());
    for (const size_t size : {1U, 2U, 3U, 7U, 4095U, 4096U, 4097U})
    {
        EXPECT_EQ(ReadAll(bytes, size).lines, whole.lines) << size;
    }
}
