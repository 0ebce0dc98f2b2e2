// INF files as the inventory reads them, byte by byte: what must come out whatever the system, and who may open a file.
#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

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

Seen LineEnds()
{
    return Saw(Sections(Write(L"ends.inf", "[A]\r\n[B]\n[C]\r\r\n[D]")));
}

Seen EndMark()
{
    return Saw(Sections(Write(L"mark.inf", "[A]\r\n\x1A\r\n[B]\r\n")));
}

Seen HighBytes()
{
    return Saw(Sections(Write(L"high.inf", "[\x80\x81\xA4\xFF]\r\n")));
}

Seen Utf16()
{
    return Saw(Sections(Write(L"utf16.inf", std::string_view("\xFF\xFE[\0A\0]\0\r\0\n\0", 12))));
}

Seen Utf8Mark()
{
    return Saw(Sections(Write(L"utf8.inf", "\xEF\xBB\xBF[A]\r\n[B]\r\n")));
}

Seen Nul()
{
    return Saw(Sections(Write(L"zero.inf", std::string_view("[A\0B]\r\n", 7))));
}

Seen LongLine()
{
    const std::string line = "[" + std::string(8'000'000, 'x') + "\r\n[A]\r\n";
    return Saw(Sections(Write(L"long.inf", line)));
}

Seen Locked()
{
    const std::wstring path = Write(L"locked.inf", "[A]\r\n");
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const std::wstring alone = Sections(path);
    CloseHandle(file);
    const HANDLE writer = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    const std::wstring shared = Sections(path);
    CloseHandle(writer);
    return Saw(alone + L", shared with a writer: " + shared);
}

Seen DeletedMeanwhile()
{
    const std::wstring path = Write(L"open.inf", "[A]\r\n");
    FILE* const file = _wfopen(path.c_str(), L"rb");
    const BOOL isDeleted = DeleteFileW(path.c_str());
    const DWORD error = GetLastError();
    if (file != nullptr)
    {
        std::fclose(file);
    }
    return Saw(Code(isDeleted != 0, error));
}

// The standard library's wide stream, which the tool does without: another way to the same characters.
Seen WideStream()
{
    const std::wstring path = Write(L"stream.txt", "\x80\xA4\xFF\r\nx\x1Ay");
    std::wifstream stream{std::filesystem::path(path)};
    std::wstring first;
    std::wstring second;
    std::getline(stream, first);
    std::getline(stream, second);
    return Saw(Quoted(first) + L" " + Quoted(second));
}
}  // namespace

std::vector<Check> ReadingChecks()
{
    return {
        {"reading.line_ends", LineEnds},
        {"reading.end_mark", EndMark},
        {"reading.high_bytes", HighBytes},
        {"reading.utf16", Utf16},
        {"reading.utf8_mark", Utf8Mark},
        {"reading.nul", Nul},
        {"reading.long_line", LongLine},
        {"reading.locked", Locked},
        {"reading.deleted_meanwhile", DeletedMeanwhile},
        {"reading.wide_stream", WideStream},
    };
}
}  // namespace windows_check
