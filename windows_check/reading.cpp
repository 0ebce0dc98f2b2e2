// INF files as the inventory reads them, byte by byte: the result must be the same on every system.
#include <windows.h>

#include "inventory/inf_release.h"
#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
std::wstring Write(const wchar_t* name, std::string_view bytes)
{
    return WriteBytes(MakeFolder(L"reading") + L"\\" + name, bytes);
}

// The section names that the tool finds, in brackets.
std::wstring Sections(const std::wstring& path)
{
    std::wstring seen;
    for (const std::wstring& name : repair::ReadInfSectionNames(path))
    {
        seen += L"[" + name + L"]";
    }
    return seen.empty() ? L"none" : Quoted(seen);
}

SHORT_FACT(reading, line_ends, Saw(Sections(Write(L"ends.inf", "[A]\r\n[B]\n[C]\r\r\n[D]"))))
SHORT_FACT(reading, end_mark, Saw(Sections(Write(L"mark.inf", "[A]\r\n\x1A\r\n[B]\r\n"))))
SHORT_FACT(reading, high_bytes, Saw(Sections(Write(L"high.inf", "[\x80\x81\xA4\xFF]\r\n"))))
SHORT_FACT(reading, utf16, Saw(Sections(Write(L"utf16.inf", std::string_view("\xFF\xFE[\0A\0]\0\r\0\n\0", 12)))))
SHORT_FACT(reading, utf8_mark, Saw(Sections(Write(L"utf8.inf", "\xEF\xBB\xBF[A]\r\n[B]\r\n"))))
SHORT_FACT(reading, nul, Saw(Sections(Write(L"zero.inf", std::string_view("[A\0B]\r\n", 7)))))

FACT(reading, long_line)
{
    const std::string line = "[" + std::string(8'000'000, 'x') + "\r\n[A]\r\n";
    return Saw(Sections(Write(L"long.inf", line)));
}

std::wstring SectionsWhileHeld(const std::wstring& path, DWORD access, DWORD share)
{
    const repair::FileHandle held = Hold(path, access, share);
    return Sections(path);
}

FACT(reading, locked)
{
    const std::wstring path = Write(L"locked.inf", "[A]\r\n");
    const std::wstring alone = SectionsWhileHeld(path, GENERIC_READ, 0);
    return Saw(alone + L", shared with a writer: " + SectionsWhileHeld(path, GENERIC_WRITE, FILE_SHARE_READ));
}
}  // namespace
}  // namespace windows_check
