// The C runtime's wide printf family and character functions, as the log uses them.
#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <cwctype>

#include "base/registry.h"
#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
// Result, length of what was written, and whether a terminator followed, of a buffer with room for `room` characters.
std::wstring Cut(size_t room, const wchar_t* format, ...)
{
    wchar_t buffer[32];
    std::wmemset(buffer, L'#', std::size(buffer));
    va_list arguments;
    va_start(arguments, format);
    const int result = _vsnwprintf(buffer, room, format, arguments);
    va_end(arguments);
    size_t written = 0;
    while (written < std::size(buffer) && buffer[written] != L'#' && buffer[written] != L'\0')
    {
        ++written;
    }
    return Number(result) + L", " + Number(written) + L" characters, " +
           (buffer[written] == L'\0' ? L"terminated" : L"not terminated");
}

// A text as the tool formats a log line.
std::wstring Formatted(const wchar_t* format, ...)
{
    constexpr size_t kLongestLine = 1023;
    wchar_t line[kLongestLine + 1] = {};
    va_list arguments;
    va_start(arguments, format);
    _vsnwprintf(line, kLongestLine, format, arguments);
    va_end(arguments);
    return line;
}

SHORT_FACT(text, cut_off, Saw(Cut(8, L"%s", L"0123456789")))
SHORT_FACT(text, just_fits, Saw(Cut(8, L"%s", L"01234567")))

FACT(text, long_line)
{
    const std::wstring text(3000, L'x');
    return Saw(Number(static_cast<long long>(Formatted(L"%s", text.c_str()).size())));
}

FACT(text, wide)
{
    constexpr wchar_t kText[] = L"\u00E9\u65E5\xD83D\xDE00";
    const bool isS = Formatted(L"%s", kText) == kText;
    const bool isLs = Formatted(L"%ls", kText) == kText;
    return Saw(isS && isLs ? L"unchanged" : L"changed", Quoted(Formatted(L"%s %ls", kText, kText)));
}

SHORT_FACT(text, narrow, Saw(Quoted(Formatted(L"%hs", "A\xC3\xA9\x80\xFF"))))
SHORT_FACT(text, numbers, Saw(Formatted(L"%d %d %d", 0x80004005u, 0xFFFFFFFFu, std::uint16_t{65535})))
SHORT_FACT(text, narrow_with_wide, Saw(Widened(repair::FormatRegistryWriteError(L"VLTUWPReplaced", -1))))

FACT(text, letter_case)
{
    const std::wstring ascii = L"24.20A-x";
    const std::wstring other = L"\u00C9";
    const bool isAscii = _wcsicmp(ascii.c_str(), L"24.20a-X") == 0;
    const bool isMore = _wcsicmp(other.c_str(), L"\u00E9") == 0;
    return Saw(isAscii ? (isMore ? L"all letters" : L"A to Z only") : L"no letters");
}

FACT(text, blanks)
{
    std::wstring seen;
    for (const wchar_t c : {L' ', L'\t', L'\r', L'\n', L'.', L'\0'})
    {
        seen += std::iswspace(c) != 0 ? L"1" : L"0";
    }
    return Saw(seen);
}

FACT(text, code_page)
{
    BOOL isReplaced = FALSE;
    char bytes[8] = {};
    Need(GetACP() != CP_UTF8, L"the system's code page is UTF-8, which has every character");
    const int size = WideCharToMultiByte(CP_ACP, 0, L"\u16A0", 1, bytes, sizeof(bytes), nullptr, &isReplaced);
    return Saw(Quoted(Widened(std::string(bytes, static_cast<size_t>(size)))), L"code page " + Number(GetACP()));
}
}  // namespace
}  // namespace windows_check
