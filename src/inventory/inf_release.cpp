#include "inventory/inf_release.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <utility>

#include <windows.h>
#include <setupapi.h>

#include "base/owned.h"
#include "base/text.h"
#include "inventory/constants.h"

namespace repair
{
namespace
{
struct InfKind
{
    using Handle = HINF;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle inf) noexcept { SetupCloseInfFile(inf); }
};
using InfHandle = Owned<InfKind>;

struct InfFileKind
{
    using Handle = FILE*;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle file) noexcept { std::fclose(file); }
};
using InfFile = Owned<InfFileKind>;

constexpr std::wstring_view kReleaseLine = L"HKR,,ReleaseVersion,,";

// True if "." of an ECMAScript expression matches every character: all but line ends.
bool IsOneLine(std::wstring_view text)
{
    return text.find_first_of(L"\n\r\u2028\u2029") == std::wstring_view::npos;
}

constexpr char kEndOfText = '\x1A';  // ends a text file, for SetupAPI too
constexpr std::string_view kLineEnds = "\n\x1A";

// True for a "[" that begins a line, and for the end of the text.
bool IsMark(char before, char byte)
{
    return (byte == '[' && before == '\n') || byte == kEndOfText;
}

size_t StepToMark(std::string_view text, size_t at, size_t end)
{
    while (at < end && !IsMark(text[at - 1], text[at]))
    {
        ++at;
    }
    return at;
}

// Index of the first mark, or the size if there is none; `before` is the byte before the text, which is not empty.
// Scans whole groups, because the compiler then compares sixteen bytes at once; that shows in INF files of megabytes.
// Marks that follow each other closely are found without a group, or each would cost the scan of one.
size_t FindMark(char before, std::string_view text)
{
    constexpr size_t kClose = 64;
    constexpr size_t kGroup = 512;
    if (IsMark(before, text.front()))
    {
        return 0;
    }
    const size_t closeEnd = std::min(kClose, text.size());
    size_t at = StepToMark(text, 1, closeEnd);
    if (at < closeEnd)
    {
        return at;
    }
    char found = 0;
    while (found == 0 && at + kGroup <= text.size())
    {
        const char* const group = text.data() + at;
        const char* const previous = group - 1;
        for (size_t i = 0; i < kGroup; ++i)
        {
            found = static_cast<char>(found | ((group[i] == '[') & (previous[i] == '\n')) | (group[i] == kEndOfText));
        }
        at += found == 0 ? kGroup : 0;
    }
    return StepToMark(text, at, text.size());
}

// Collects the section headers of a text file that arrives in blocks of bytes. CR LF is one line end, as in text mode.
class HeaderCollector
{
public:
    void Add(std::string_view bytes)
    {
        while (!bytes.empty() && !ended_)
        {
            bytes.remove_prefix(line_.empty() ? SkipToHeader(bytes) : TakeHeader(bytes));
        }
    }

    // The last line needs no line break after it.
    std::list<std::wstring> Finish()
    {
        EndLine();
        return std::move(names_);
    }

private:
    // Skips the bytes up to and including the "[" that begins the next header. Returns how many there were.
    size_t SkipToHeader(std::string_view bytes)
    {
        const size_t mark = FindMark(lastByte_, bytes);
        if (mark == bytes.size())
        {
            lastByte_ = bytes.back();
            return mark;
        }
        ended_ = bytes[mark] == kEndOfText;
        if (!ended_)
        {
            line_ = bytes[mark];
        }
        return mark + 1;
    }

    // Takes the bytes of a header up to and including its line end. Returns how many there were.
    size_t TakeHeader(std::string_view bytes)
    {
        const size_t end = std::min(bytes.find_first_of(kLineEnds), bytes.size());
        line_.append(bytes.substr(0, end));
        if (end == bytes.size())
        {
            return end;
        }
        lastByte_ = bytes[end];
        ended_ = lastByte_ == kEndOfText;
        if (!ended_)
        {
            if (line_.back() == '\r')
            {
                line_.pop_back();
            }
            EndLine();
        }
        return end + 1;
    }

    void EndLine()
    {
        // Check the last character first: a line that begins with "[" may be long.
        if (!line_.empty() && line_.back() == ']')
        {
            std::wstring wide(line_.size(), L'\0');
            std::transform(line_.begin(), line_.end(), wide.begin(),
                           [](char byte) { return static_cast<wchar_t>(static_cast<unsigned char>(byte)); });
            std::wstring_view name;
            if (MatchSectionHeader(wide, name))
            {
                names_.emplace_back(name);
            }
        }
        line_.clear();
    }

    std::list<std::wstring> names_;
    std::string line_;      // the header that has begun; empty between headers
    char lastByte_ = '\n';  // the byte before the next one, outside headers
    bool ended_ = false;
};
}  // namespace

// Not with std::wregex, which recurses for every character: a long line after a "[" would overflow the stack.
bool MatchSectionHeader(std::wstring_view line, std::wstring_view& name)
{
    if (line.size() < 2 || line.front() != L'[' || line.back() != L']')
    {
        return false;
    }
    name = line.substr(1, line.size() - 2);
    return IsOneLine(name);
}

bool MatchReleaseLine(std::wstring_view text, std::wstring_view& value)
{
    if (text.size() < kReleaseLine.size() ||
        !std::equal(kReleaseLine.begin(), kReleaseLine.end(), text.begin(), IsSameNoCase))
    {
        return false;
    }
    value = text.substr(kReleaseLine.size());
    return IsOneLine(value);
}

std::list<std::wstring> ReadInfSectionNames(const std::wstring& infPath)
{
    // Binary mode, because the C runtime's text mode takes ten times as long as reading the file.
    const InfFile file(_wfopen(infPath.c_str(), L"rb"));
    if (!file)
    {
        return {};
    }
    constexpr size_t kBlockBytes = 65'536;
    const auto block = std::make_unique<char[]>(kBlockBytes);
    HeaderCollector headers;
    for (;;)
    {
        const size_t count = std::fread(block.get(), 1, kBlockBytes, file.Get());
        if (count == 0)
        {
            return headers.Finish();
        }
        headers.Add(std::string_view(block.get(), count));
    }
}

std::wstring ReadInfReleaseVersion(const std::wstring& infPath)
{
    const std::list<std::wstring> sections = ReadInfSectionNames(infPath);
    UINT errorLine = 0;
    const InfHandle inf(SetupOpenInfFileW(infPath.c_str(), nullptr, INF_STYLE_WIN4, &errorLine));
    if (!inf)
    {
        return {};
    }
    std::wstring release;
    const auto text = std::make_unique<wchar_t[]>(kInfLineCharacters);
    for (const std::wstring& section : sections)
    {
        INFCONTEXT line = {};
        BOOL found = SetupFindFirstLineW(inf.Get(), section.c_str(), nullptr, &line);
        while (found != 0)
        {
            std::wstring_view value;
            // A line that does not fit is skipped. The last match wins, so the search goes on after one.
            if (SetupGetLineTextW(&line, nullptr, nullptr, nullptr, text.get(), kInfLineCharacters, nullptr) != 0 &&
                MatchReleaseLine(text.get(), value))
            {
                release = value;
            }
            INFCONTEXT previous = line;
            found = SetupFindNextLine(&previous, &line);
        }
    }
    return release;
}
}  // namespace repair
