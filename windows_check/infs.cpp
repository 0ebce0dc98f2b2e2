// INF files through SetupAPI, and by the tool's own readers. On files of this run.
#include <windows.h>
#include <setupapi.h>

#include <atomic>
#include <memory>

#include "base/owned.h"
#include "inventory/constants.h"
#include "inventory/inf_release.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
struct InfKind
{
    using Handle = HINF;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle inf) noexcept { SetupCloseInfFile(inf); }
};
using Inf = repair::Owned<InfKind>;

// A file with a version and these lines. Each has a name of its own, because a virus scanner may still hold the last
// one.
std::wstring Write(const std::string& lines)
{
    static std::atomic<int> count = 0;
    const std::wstring path = MakeFolder(L"infs") + L"\\" + Number(++count) + L".inf";
    return WriteBytes(path, "[Version]\r\nSignature = \"$WINDOWS NT$\"\r\n" + lines);
}

std::wstring LineText(INFCONTEXT& line)
{
    const auto text = std::make_unique<wchar_t[]>(repair::kInfLineCharacters);
    if (SetupGetLineTextW(&line, nullptr, nullptr, nullptr, text.get(), repair::kInfLineCharacters, nullptr) == 0)
    {
        return L"error " + Number(GetLastError());
    }
    return text.get();
}

// The texts of all lines of a section, in brackets, or why there are none.
std::wstring Lines(const std::wstring& path, const wchar_t* section = L"A")
{
    UINT badLine = 0;
    const Inf inf(SetupOpenInfFileW(path.c_str(), nullptr, INF_STYLE_WIN4, &badLine));
    if (!inf)
    {
        return L"not opened: " + Number(GetLastError());
    }
    std::wstring seen;
    INFCONTEXT line = {};
    BOOL isFound = SetupFindFirstLineW(inf.Get(), section, nullptr, &line);
    if (isFound == 0)
    {
        return Hex(GetLastError());
    }
    while (isFound != 0)
    {
        seen += L"[" + LineText(line) + L"]";
        INFCONTEXT previous = line;
        isFound = SetupFindNextLine(&previous, &line);
    }
    return seen;
}

SHORT_FACT(infs, compact_form,
           Lines(Write("[A]\r\n"
                       "HKR , , ReleaseVersion , , 24.20 ; comment\r\n"
                       "HKR,,\"ReleaseVersion\",,\"a b\"\r\n"
                       "HKR,,X,,\"q\"\"q\"\r\n"
                       "HKR,,ReleaseVersion,,\r\n"
                       "HKR,,ReleaseVersion,,\\\r\n  24.20\r\n"
                       "key = a,b\r\n")))

SHORT_FACT(infs, substitution,
           Lines(Write("[A]\r\n"
                       "HKR,,X,,%VALUE%\r\n"
                       "HKR,,Y,,%NONE%\r\n"
                       "HKR,,Z,,%%\r\n"
                       "[Strings]\r\n"
                       "VALUE = \"24.20\"\r\n")))

FACT(infs, section_names)
{
    const std::wstring path = Write("[Abc]\r\none\r\n[def] ; comment\r\nthree\r\n[ABC]\r\ntwo\r\n");
    return OfEach({L"aBC", L"def", L"none"}, [&](const std::wstring& name) { return Lines(path, name.c_str()); });
}

// The longest text that has room, and one character more.
FACT(infs, longest_line)
{
    return OfEach({L"", L"y"}, [](const std::wstring& more) {
        std::string line = "HKR,,X";
        while (line.size() < 2063 - 405)
        {
            line += "," + std::string(400, 'x');
        }
        line += ",";
        line.append(2063 + more.size() - line.size(), 'y');
        const std::wstring text = Lines(Write("[A]\r\n" + line + "\r\n"));
        return text.size() > 2000 ? Number(text.size() - 2) : text;
    });
}

SHORT_FACT(infs, end_mark, Lines(Write("[A]\r\none\r\n\x1A\r\ntwo\r\n")))

// SetupAPI's code, and how many section names the tool's own reader finds.
FACT(infs, locked)
{
    const std::wstring path = Write("[A]\r\none\r\n");
    const repair::FileHandle held = Hold(path, GENERIC_READ, 0);
    return Lines(path) + L", " + Number(repair::ReadInfSectionNames(path).size()) + L" names";
}

// The tool's own reader on a whole file.
FACT(infs, release)
{
    return Quoted(
        repair::ReadInfReleaseVersion(Write("[A]\r\nHKR,,ReleaseVersion,,%RELEASE%\r\n"
                                            "[B]\r\nhkr,,releaseversion , , \"24.20.11.01-240619a\"\r\n"
                                            "[Strings]\r\nRELEASE=\"24.10\"\r\n")));
}
}  // namespace
}  // namespace windows_check
