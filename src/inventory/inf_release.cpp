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

struct FileStreamKind
{
    using Handle = FILE*;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle file) noexcept { std::fclose(file); }
};
using FileStream = Owned<FileStreamKind>;

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

// Collects header lines from a file that arrives in blocks. Only lines that begin with "[" are kept in memory.
// Line ends are those of a text stream: LF, or CR LF.
class HeaderCollector
{
public:
    void Add(std::string_view block)
    {
        while (!block.empty())
        {
            const size_t end = std::min(block.find('\n'), block.size());
            if (atLineStart_)
            {
                collecting_ = end > 0 && block.front() == '[';
                atLineStart_ = false;
            }
            if (collecting_)
            {
                line_.append(block.substr(0, end));
            }
            if (end == block.size())
            {
                return;
            }
            if (collecting_ && line_.back() == '\r')  // at the earliest behind the "[", so something is left
            {
                line_.pop_back();
            }
            EndLine();
            block.remove_prefix(end + 1);
        }
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
        atLineStart_ = true;
    }

    std::list<std::wstring> names_;
    std::string line_;
    bool atLineStart_ = true;
    bool collecting_ = false;
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
    // What a text stream does is done here: the run-time library does it byte by byte, ten times as slow as the
    // reading.
    const FileStream file(_wfopen(infPath.c_str(), L"rb"));
    if (!file)
    {
        return {};
    }
    constexpr size_t kBlockBytes = 65'536;
    constexpr char kEndOfText = '\x1A';  // ends a text file, for SetupAPI as well
    const auto block = std::make_unique<char[]>(kBlockBytes);
    HeaderCollector headers;
    for (;;)
    {
        const size_t count = std::fread(block.get(), 1, kBlockBytes, file.Get());
        const std::string_view bytes(block.get(), count);
        const size_t end = bytes.find(kEndOfText);
        headers.Add(bytes.substr(0, end));
        if (count == 0 || end != std::string_view::npos)
        {
            return headers.Finish();
        }
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
