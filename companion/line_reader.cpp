#include "companion/line_reader.h"

#include <algorithm>
#include <utility>

#include <utf8cpp/utf8.h>

namespace repair
{
namespace
{
constexpr size_t kSampleBytes = 4096;
constexpr size_t kLeastZeros = 10;  // at least one byte in ten is zero in UTF-16; fewer are damage of UTF-8
constexpr char32_t kReplacement = 0xFFFD;

constexpr bool IsHighSurrogate(char16_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

constexpr bool IsLowSurrogate(char16_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

constexpr bool IsContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Returns how many bytes of UTF-8 a character has that begins with this one, if it is valid.
constexpr size_t LengthOfCharacter(char byte)
{
    const auto first = static_cast<unsigned char>(byte);
    return first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}
}  // namespace

LineReader::LineReader(std::function<void(const Line&)> sink) : sink_(std::move(sink)) {}

void LineReader::Feed(std::string_view bytes)
{
    if (!detected_)
    {
        const size_t taken = std::min(kSampleBytes - sample_.size(), bytes.size());
        sample_.append(bytes.substr(0, taken));
        bytes.remove_prefix(taken);
        if (sample_.size() < kSampleBytes)
        {
            return;
        }
        Detect();
    }
    Decode(bytes);
}

Damage LineReader::Finish()
{
    if (!detected_)
    {
        Detect();
    }
    damage_.cutAtEnd = firstByte_ >= 0 || surrogate_ != 0 || !partial_.empty();
    if (damage_.cutAtEnd)
    {
        PutUnreadable();
    }
    if (!line_.empty() || continued_)
    {
        damage_.lastLineOpen = true;
        EndLine(false);
    }
    return damage_;
}

// A byte order mark decides. Without one, zeros decide: the tool's texts are mostly ASCII, so in UTF-16 every second
// byte is zero. If the zero comes first in each pair, the log has lost its first byte.
void LineReader::Detect()
{
    detected_ = true;
    std::string_view bytes = sample_;
    if (bytes.starts_with("\xEF\xBB\xBF"))
    {
        encoding_ = Encoding::kUtf8;
        bytes.remove_prefix(3);
    }
    else if (bytes.starts_with("\xFF\xFE"))
    {
        bytes.remove_prefix(2);
    }
    else if (bytes.starts_with("\xFE\xFF"))
    {
        encoding_ = Encoding::kUtf16Be;
        bytes.remove_prefix(2);
    }
    else
    {
        size_t zeros[2] = {};
        for (size_t i = 0; i < bytes.size(); ++i)
        {
            zeros[i % 2] += bytes[i] == '\0' ? 1U : 0U;
        }
        if ((zeros[0] + zeros[1]) * kLeastZeros < bytes.size())
        {
            encoding_ = Encoding::kUtf8;
        }
        else if (zeros[0] > zeros[1])
        {
            damage_.cutAtStart = true;
            bytes.remove_prefix(1);
        }
    }
    Decode(bytes);
    sample_ = {};
}

void LineReader::Decode(std::string_view bytes)
{
    for (const char byte : bytes)
    {
        if (encoding_ == Encoding::kUtf8)
        {
            DecodeUtf8(byte);
        }
        else
        {
            DecodeUtf16(static_cast<unsigned char>(byte));
        }
    }
}

void LineReader::DecodeUtf16(unsigned char byte)
{
    if (firstByte_ < 0)
    {
        firstByte_ = byte;
        return;
    }
    const int low = encoding_ == Encoding::kUtf16Le ? firstByte_ : byte;
    const int high = encoding_ == Encoding::kUtf16Le ? byte : firstByte_;
    firstByte_ = -1;
    PutUnit(static_cast<char16_t>(high << 8 | low));
}

void LineReader::PutUnit(char16_t unit)
{
    if (surrogate_ != 0)
    {
        const char32_t high = std::exchange(surrogate_, u'\0');
        if (IsLowSurrogate(unit))
        {
            Put(0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00U));
            return;
        }
        PutUnreadable();
    }
    if (IsHighSurrogate(unit))
    {
        surrogate_ = unit;
    }
    else if (IsLowSurrogate(unit))
    {
        PutUnreadable();
    }
    else
    {
        Put(unit);
    }
}

void LineReader::DecodeUtf8(char byte)
{
    const bool continues = IsContinuation(byte);
    if (!partial_.empty() && !continues)
    {
        partial_.clear();
        PutUnreadable();
    }
    const bool begins = partial_.empty();
    partial_.push_back(byte);
    if (partial_.size() == LengthOfCharacter(partial_.front()) || (begins && continues))
    {
        const std::string whole = std::exchange(partial_, {});
        if (utf8::is_valid(whole))
        {
            Put(utf8::peek_next(whole.begin(), whole.end()));
        }
        else
        {
            PutUnreadable();
        }
    }
}

void LineReader::PutUnreadable()
{
    ++damage_.unreadable;
    Put(kReplacement);
}

void LineReader::Put(char32_t character)
{
    if (character == U'\n')
    {
        EndLine(true);
        return;
    }
    if (line_.size() >= kLongestPiece)
    {
        if (!continued_)
        {
            ++damage_.overlongLines;
        }
        sink_({line_, !continued_, false, true});
        continued_ = true;
        line_.clear();
    }
    if (character == U'\0')
    {
        ++damage_.unreadable;
        character = kReplacement;
    }
    utf8::append(character, line_);
}

void LineReader::EndLine(bool hasLineEnd)
{
    if (line_.ends_with('\r'))  // another program changed the line ends
    {
        line_.pop_back();
    }
    sink_({line_, !continued_, true, hasLineEnd});
    line_.clear();
    continued_ = false;
}

std::vector<std::string> DescribeDamage(const Damage& damage)
{
    std::vector<std::string> sentences;
    if (damage.cutAtStart)
    {
        sentences.emplace_back("it begins in the middle of a character");
    }
    if (damage.cutAtEnd)
    {
        sentences.emplace_back("it ends in the middle of a character");
    }
    if (damage.lastLineOpen)
    {
        sentences.emplace_back("its last line is not complete");
    }
    if (damage.unreadable > 0)
    {
        sentences.push_back(std::to_string(damage.unreadable) + " of its characters cannot be read");
    }
    if (damage.overlongLines > 0)
    {
        sentences.push_back(std::to_string(damage.overlongLines) + " of its lines are too long to be the tool's");
    }
    return sentences;
}
}  // namespace repair
