#include "inventory/inf_release.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <utility>

#include <windows.h>
#include <setupapi.h>

#include "base/owned.h"
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

// What "." of an ECMAScript expression matches: everything but line ends.
bool IsOneLine(std::wstring_view text)
{
    return text.find_first_of(L"\n\r\u2028\u2029") == std::wstring_view::npos;
}

wchar_t LowerAscii(wchar_t c)
{
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

constexpr char kEndOfText = '\x1A';  // a text file ends there, as SetupAPI sees it as well
constexpr std::string_view kLineEnds = "\n\x1A";

// The next "[" or end of the text, from `at` on; the size when there is none. Most groups of bytes have neither:
// without a branch for each byte the compiler looks at sixteen at a time, which an INF of megabytes is worth.
size_t FindMark(std::string_view text, size_t at)
{
    constexpr size_t kGroup = 512;
    char found = 0;
    while (found == 0 && at + kGroup <= text.size())
    {
        const char* const group = text.data() + at;
        for (size_t i = 0; i < kGroup; ++i)
        {
            found = static_cast<char>(found | (group[i] == '[') | (group[i] == kEndOfText));
        }
        at += found == 0 ? kGroup : 0;
    }
    while (at < text.size() && text[at] != '[' && text[at] != kEndOfText)
    {
        ++at;
    }
    return at;
}

// Collects header lines from the bytes of a file, which arrive in blocks, as if it were read in text mode: CR LF is one
// line end. Only lines that begin with "[" are kept in memory.
class HeaderCollector
{
public:
    void Add(std::string_view block)
    {
        for (size_t at = 0; at < block.size() && !ended_; ++at)
        {
            const size_t start = at;
            at = collecting_ ? std::min(block.find_first_of(kLineEnds, at), block.size()) : FindMark(block, at);
            if (collecting_)
            {
                line_.append(block.substr(start, at - start));
            }
            if (at == block.size())
            {
                break;
            }
            if (block[at] == '[')
            {
                collecting_ = (at == 0 ? lastByte_ : block[at - 1]) == '\n';
                line_.assign(1, '[');
            }
            else if (block[at] == '\n')
            {
                if (line_.back() == '\r')
                {
                    line_.pop_back();
                }
                EndLine();
            }
            else
            {
                ended_ = true;
            }
        }
        lastByte_ = block.back();
    }

    // The last line needs no line break behind it.
    std::list<std::wstring> Finish()
    {
        EndLine();
        return std::move(names_);
    }

private:
    void EndLine()
    {
        // Cheap test first: most lines that begin with "[" are headers, but a hostile one may be long.
        if (collecting_ && line_.back() == ']')
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
        collecting_ = false;
    }

    std::list<std::wstring> names_;
    std::string line_;
    char lastByte_ = '\n';  // of the block before; a file begins with a line
    bool collecting_ = false;
    bool ended_ = false;
};
}  // namespace

// By hand, not with std::wregex: that one calls itself for every character, and a line of some thousand characters
// behind a "[" would overflow the stack.
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
        !std::equal(kReleaseLine.begin(), kReleaseLine.end(), text.begin(),
                    [](wchar_t a, wchar_t b) { return LowerAscii(a) == LowerAscii(b); }))
    {
        return false;
    }
    value = text.substr(kReleaseLine.size());
    return IsOneLine(value);
}

std::list<std::wstring> ReadInfSectionNames(const std::wstring& infPath)
{
    // In binary mode, because the C runtime's text mode takes ten times as long as reading the file.
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
            // A line that does not fit is passed over. The last match wins, so the search goes on after one.
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
