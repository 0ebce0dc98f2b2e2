// Bytes of a log, in any encoding it may have come to and with any cut, into lines of UTF-8. Memory does not grow with
// the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace repair
{
enum class Encoding
{
    Utf16Le,  // what the tool writes
    Utf16Be,
    Utf8,
};

struct Line
{
    std::string_view text;   // UTF-8 without the line end; valid during the call
    bool begins = true;      // false: the line goes on that was too long for one call
    bool ends = true;        // false: it goes on in the next call
    bool hasLineEnd = true;  // false: the log stops here without a line feed
};

// What is wrong with the log as a file.
struct Damage
{
    bool cutAtStart = false;          // it begins in the middle of a character
    bool cutAtEnd = false;            // it ends in the middle of a character
    bool lastLineOpen = false;        // the last line has no end
    std::uint64_t unreadable = 0;     // characters that are none (also zeros); U+FFFD stands in their place
    std::uint64_t overlongLines = 0;  // longer than kLongestPiece

    [[nodiscard]] bool IsAny() const
    {
        return cutAtStart || cutAtEnd || lastLineOpen || unreadable > 0 || overlongLines > 0;
    }
};

class LineReader
{
public:
    // Bytes of UTF-8 that one call gets at the most. The tool's own lines have no more than 1,023 characters.
    static constexpr size_t kLongestPiece = 65'536;

    explicit LineReader(std::function<void(const Line&)> sink);

    // Any number of bytes; `sink` is called for each line that is complete by now.
    void Feed(std::string_view bytes);
    // The log ends here. Call it once, and nothing afterwards but the two below.
    void Finish();

    [[nodiscard]] Encoding GetEncoding() const { return encoding_; }
    [[nodiscard]] const Damage& GetDamage() const { return damage_; }

private:
    void Detect();
    void Decode(std::string_view bytes);
    void DecodeUtf16(unsigned char byte);
    void DecodeUtf8(unsigned char byte);
    void PutUnit(char16_t unit);
    void PutUnreadable();
    void Put(char32_t character);
    void EndLine(bool hasLineEnd);

    std::function<void(const Line&)> sink_;
    std::string sample_;  // the first bytes, until the encoding is known
    bool detected_ = false;
    Encoding encoding_ = Encoding::Utf16Le;
    Damage damage_;

    int firstByte_ = -1;      // UTF-16: the half of a character that waits for the other
    char16_t surrogate_ = 0;  // UTF-16: the first of a pair
    char32_t partial_ = 0;    // UTF-8: the character so far,
    int missing_ = 0;         // the bytes that it lacks
    char32_t smallest_ = 0;   // and what it has to reach with so many bytes

    std::string line_;
    bool continued_ = false;  // a piece of this line has been handed out
};

// For people: one sentence for each kind of damage, without a full stop.
std::vector<std::string> DescribeDamage(const Damage& damage);
}  // namespace repair
