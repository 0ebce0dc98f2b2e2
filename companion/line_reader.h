// Turns the bytes of a log, in any encoding and cut anywhere, into lines of UTF-8. Memory use does not grow with the
// log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace repair
{
struct Line
{
    std::string_view text;   // UTF-8 without the line end; valid during the call
    bool begins = true;      // false: continues the line of the previous call, which was too long
    bool ends = true;        // false: the next call continues this line
    bool hasLineEnd = true;  // false: the log ends here without a line feed
};

// Damage of the log as a file.
struct Damage
{
    bool cutAtStart = false;          // it begins in the middle of a character
    bool cutAtEnd = false;            // it ends in the middle of a character
    bool lastLineOpen = false;        // the last line has no line feed
    std::uint64_t unreadable = 0;     // invalid characters and zeros, replaced by U+FFFD
    std::uint64_t overlongLines = 0;  // longer than kLongestPiece
};

class LineReader
{
public:
    // Most bytes of UTF-8 in one call. The tool's own lines have at most 1,023 characters.
    static constexpr size_t kLongestPiece = 65'536;

    explicit LineReader(std::function<void(const Line&)> sink);

    // Takes any number of bytes and passes each complete line to `sink`.
    void Feed(std::string_view bytes);
    // Call it once, at the end of the log. Returns the damage of the whole log.
    Damage Finish();

private:
    enum class Encoding
    {
        kUtf16Le,  // what the tool writes
        kUtf16Be,
        kUtf8,
    };

    void Detect();
    void Decode(std::string_view bytes);
    void DecodeUtf16(unsigned char byte);
    void DecodeUtf8(char byte);
    void PutUnit(char16_t unit);
    void PutUnreadable();
    void Put(char32_t character);
    void EndLine(bool hasLineEnd);

    std::function<void(const Line&)> sink_;
    std::string sample_;  // the first bytes, until the encoding is known
    bool detected_ = false;
    Encoding encoding_ = Encoding::kUtf16Le;
    Damage damage_;

    int firstByte_ = -1;      // UTF-16: first byte of a unit
    char16_t surrogate_ = 0;  // UTF-16: first unit of a pair
    std::string partial_;     // UTF-8: first bytes of a character

    std::string line_;
    bool continued_ = false;  // the sink already got a part of this line
};

// Returns one sentence for each kind of damage, without a full stop.
std::vector<std::string> DescribeDamage(const Damage& damage);
}  // namespace repair
