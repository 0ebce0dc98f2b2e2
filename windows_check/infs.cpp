// INF files through SetupAPI: what its lines look like, and what it refuses. On files of this run and on one of
// Windows.
#include <windows.h>
#include <setupapi.h>

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

const std::string kVersion = "[Version]\r\nSignature = \"$WINDOWS NT$\"\r\n";

std::wstring Write(const wchar_t* name, const std::string& bytes)
{
    return WriteBytes(MakeFolder(L"infs") + L"\\" + name, bytes);
}

Inf Open(const std::wstring& path)
{
    UINT line = 0;
    return Inf(SetupOpenInfFileW(path.c_str(), nullptr, INF_STYLE_WIN4, &line));
}

std::wstring OpenCode(const std::wstring& path)
{
    const Inf inf = Open(path);
    const DWORD error = GetLastError();
    if (inf)
    {
        return L"ok";
    }
    return error < 0x10000 ? Number(error) : Hex(error);
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

// The texts of all lines of a section, in brackets.
std::wstring Lines(const std::wstring& path, const wchar_t* section)
{
    const Inf inf = Open(path);
    if (!inf)
    {
        return L"not opened: " + Hex(GetLastError());
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

FACT(infs, compact_form)
{
    return Saw(Lines(Write(L"compact.inf", kVersion + "[A]\r\n"
                                                      "HKR , , ReleaseVersion , , 24.20 ; comment\r\n"
                                                      "HKR,,\"ReleaseVersion\",,\"a b\"\r\n"
                                                      "HKR,,X,,\"q\"\"q\"\r\n"
                                                      "HKR,,ReleaseVersion,,\r\n"
                                                      "key = a,b\r\n"),
                     L"A"));
}

SHORT_FACT(infs, continued,
           Saw(Lines(Write(L"continued.inf", kVersion + "[A]\r\nHKR,,ReleaseVersion,,\\\r\n  24.20\r\n"), L"A")))

SHORT_FACT(
    infs, substitution,
    Saw(Lines(Write(L"strings.inf",
                    kVersion +
                        "[A]\r\nHKR,,X,,%VALUE%\r\nHKR,,Y,,%NONE%\r\nHKR,,Z,,%%\r\n[Strings]\r\nVALUE = \"24.20\"\r\n"),
              L"A")))

FACT(infs, section_names)
{
    const std::wstring path =
        Write(L"names.inf", kVersion + "[Abc]\r\none\r\n[def] ; comment\r\nthree\r\n[ABC]\r\ntwo\r\n");
    return Saw(Lines(path, L"aBC") + L" " + Lines(path, L"def") + L" " + Lines(path, L"none"));
}

FACT(infs, long_line)
{
    // Several fields, each of them short enough.
    std::string line = "HKR,,X,,";
    for (int i = 0; i < 10; ++i)
    {
        line += std::string(300, static_cast<char>('a' + i)) + ",";
    }
    return Saw(Lines(Write(L"long.inf", kVersion + "[A]\r\n" + line + "z\r\n"), L"A"));
}

// The longest text that has room, and one character more.
FACT(infs, longest_line)
{
    std::wstring seen;
    for (const int more : {0, 1})
    {
        std::string line = "HKR,,X";
        while (line.size() < 2063 - 405)
        {
            line += "," + std::string(400, 'x');
        }
        line += ",";
        line.append(static_cast<size_t>(2063 + more) - line.size(), 'y');
        const std::string inf = std::string(kVersion).append("[A]\r\n").append(line).append("\r\n");
        const std::wstring text = Lines(Write(more == 0 ? L"fits.inf" : L"more.inf", inf), L"A");
        seen += (seen.empty() ? L"" : L", ") +
                (text.size() > 2000 ? Number(static_cast<long long>(text.size()) - 2) : text);
    }
    return Saw(seen);
}

FACT(infs, open_codes)
{
    const std::wstring folder = MakeFolder(L"infs");
    return Saw(OpenCode(folder + L"\\missing.inf") + L" " + OpenCode(folder + L"\\missing\\x.inf") + L" " +
               OpenCode(Write(L"empty.inf", "")) + L" " +
               OpenCode(Write(L"other.inf", "[Version]\r\nSignature=\"x\"\r\n")) + L" " +
               OpenCode(Write(L"none.inf", "[A]\r\nx\r\n")) + L" " +
               OpenCode(Write(L"before.inf", "x\r\n" + kVersion)) + L" " +
               OpenCode(Write(L"chicago.inf", "[Version]\r\nSignature=\"$CHICAGO$\"\r\n")));
}

FACT(infs, open_locked)
{
    const std::wstring path = Write(L"locked.inf", kVersion);
    const repair::FileHandle file = Hold(path, GENERIC_READ, 0);
    const std::wstring seen = OpenCode(path);
    return Saw(seen);
}

SHORT_FACT(infs, end_mark, Saw(Lines(Write(L"mark.inf", kVersion + "[A]\r\none\r\n\x1A\r\ntwo\r\n"), L"A")))

FACT(infs, utf16)
{
    std::string bytes = "\xFF\xFE";
    for (const char c : kVersion + "[A]\r\none\r\n")
    {
        bytes += c;
        bytes += '\0';
    }
    return Saw(Lines(Write(L"utf16.inf", bytes), L"A"));
}

// The tool's own reader on a whole file.
FACT(infs, release)
{
    const std::wstring path = Write(L"release.inf", kVersion +
                                                        "[A]\r\nHKR,,ReleaseVersion,,%RELEASE%\r\n"
                                                        "[B]\r\nhkr,,releaseversion , , \"24.20.11.01-240619a\"\r\n"
                                                        "[Strings]\r\nRELEASE=\"24.10\"\r\n");
    return Saw(Quoted(repair::ReadInfReleaseVersion(path)));
}

// A file that every Windows brings along: its signature line.
FACT(infs, of_windows)
{
    wchar_t folder[MAX_PATH] = {};
    GetWindowsDirectoryW(folder, MAX_PATH);
    for (const wchar_t* name :
         {L"\\INF\\display.inf", L"\\INF\\machine.inf", L"\\INF\\monitor.inf", L"\\INF\\input.inf"})
    {
        const std::wstring path = std::wstring(folder) + name;
        if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        {
            const Inf inf = Open(path);
            INFCONTEXT line = {};
            std::wstring text = L"not opened";
            if (inf && SetupFindFirstLineW(inf.Get(), L"Version", L"Signature", &line) != 0)
            {
                text = LineText(line);
            }
            return Saw(Lower(text), path);
        }
    }
    throw NotApplicable{L"none of the INF files that come with Windows is here"};
}
}  // namespace
}  // namespace windows_check
