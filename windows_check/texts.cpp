// The system's texts for error codes, and the C runtime's wide printf family as the log uses it.
#include <windows.h>

#include <cstdarg>
#include <cwchar>
#include <filesystem>
#include <initializer_list>
#include <new>
#include <system_error>

#include "base/registry.h"
#include "base/system_message.h"
#include "base/text.h"
#include "store/winrt_runtime.h"
#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
// What matters of a text in the log: is there one, on one line, and how does it end?
std::wstring Shape(const std::wstring& text)
{
    if (text.empty())
    {
        return L"none";
    }
    const bool isOneLine = text.find_first_of(L"\r\n") == std::wstring::npos;
    const bool endsInOneBlank = text.back() == L' ' && !text.ends_with(L"  ");
    return std::wstring(isOneLine ? L"text" : L"text of several lines") +
           (endsInOneBlank ? L", a blank at the end" : L", another end");
}

Seen Shapes(std::initializer_list<DWORD> codes)
{
    std::wstring shared;
    std::wstring others;
    std::wstring detail;
    for (const DWORD code : codes)
    {
        const std::wstring text = repair::FormatSystemMessage(code);
        const std::wstring shape = Shape(text);
        shared = shared.empty() ? shape : shared;
        others += shape == shared ? L"" : L"; " + Number(code) + L": " + shape;
        detail += Number(code) + L" " + Quoted(text) + L" ";
    }
    return {shared + others, detail};
}

SHORT_FACT(messages, common, Shapes({0,    2,    3,    5,    6,    32,   36,   87,   112,  122,  183,  1006,
                                     1155, 1223, 1602, 1603, 1605, 1612, 1618, 1619, 1620, 1625, 1641, 3010}))
SHORT_FACT(messages, internet, Shapes({12002, 12007, 12029, 12030, 12031, 12152, 12175}))

FACT(messages, insert)
{
    const std::wstring text = repair::FormatSystemMessage(ERROR_BAD_EXE_FORMAT);
    return text.find(L"%1") != std::wstring::npos ? L"kept as %1" : Quoted(text);
}

std::wstring RuntimeText(HRESULT code)
{
    try
    {
        repair::ThrowWinrtError(code);
    }
    catch (const repair::WinrtError& error)
    {
        return error.message;
    }
    catch (const std::bad_alloc&)
    {
        return L"bad_alloc";
    }
}

FACT(messages, runtime)
{
    std::wstring none;
    std::wstring detail;
    for (const DWORD code : {0x80040154, 0x800401F0, 0x80070005, 0x80073CF1, 0x80073CFA})
    {
        const std::wstring text = RuntimeText(static_cast<HRESULT>(code));
        none += text.empty() ? L" " + Hex(code) : L"";
        detail += Hex(code) + L" " + Quoted(text) + L" ";
    }
    return {none.empty() ? L"all have one" : L"none for" + none, detail};
}

FACT(messages, standard_error)
{
    const std::wstring text = Widened(std::system_error(5, std::system_category(), "x").what());
    const bool hasEnd = text.find_last_of(L". \r\n") == text.size() - 1;
    return {!text.starts_with(L"x: ") || text.size() < 5 ? Quoted(text)
            : hasEnd                                     ? L"x: text, with its end"
                                                         : L"x: text, without its end",
            Quoted(text)};
}

// A path outside ASCII and the system's text, as the log shows them.
FACT(messages, exception_text)
{
    constexpr wchar_t kPath[] = L"C:\\J\u00FCrgen\u65E5";
    const std::filesystem::filesystem_error error("x", kPath, std::error_code(5, std::system_category()));
    const std::wstring text = repair::ExceptionText(error);
    std::wstring wanted = repair::FormatSystemMessage(5);
    wanted.resize(wanted.find_last_not_of(L". ") + 1);
    return {std::wstring(text.find(kPath) != std::wstring::npos ? L"path" : L"no path") +
                (text.find(wanted) != std::wstring::npos ? L" and text" : L", no text"),
            Quoted(text)};
}

// Result, length of what was written, and whether a terminator followed, of a buffer with room for `room` characters.
std::wstring Cut(size_t room, const wchar_t* format, ...)
{
    wchar_t buffer[32];
    std::wmemset(buffer, L'#', std::size(buffer));
    va_list arguments;
    va_start(arguments, format);
    const int result = _vsnwprintf(buffer, room, format, arguments);
    va_end(arguments);
    const std::wstring all(buffer, std::size(buffer));
    const size_t written = all.find_first_of(std::wstring_view(L"#\0", 2));
    return Number(result) + L", " + Number(written) + L" characters, " +
           (all[written] == L'\0' ? L"terminated" : L"not terminated");
}

// A text as the tool formats a log line.
std::wstring Formatted(const wchar_t* format, ...)
{
    wchar_t line[64] = {};
    va_list arguments;
    va_start(arguments, format);
    _vsnwprintf(line, std::size(line) - 1, format, arguments);
    va_end(arguments);
    return line;
}

SHORT_FACT(text, cut_off, Cut(8, L"%s", L"0123456789"))
SHORT_FACT(text, just_fits, Cut(8, L"%s", L"01234567"))

FACT(text, wide)
{
    constexpr wchar_t kText[] = L"\u00E9\u65E5\xD83D\xDE00";
    const std::wstring seen = Formatted(L"%s %ls", kText, kText);
    return {seen == std::wstring(kText) + L" " + kText ? L"unchanged" : L"changed", Quoted(seen)};
}

SHORT_FACT(text, narrow_with_wide, Widened(repair::FormatRegistryWriteError(L"VLTUWPReplaced", -1)))

FACT(text, letter_case)
{
    const std::wstring ascii = L"24.20A-x";
    const std::wstring more = L"\u00C9";
    const bool isAscii = _wcsicmp(ascii.c_str(), L"24.20a-X") == 0;
    const bool isMore = _wcsicmp(more.c_str(), L"\u00E9") == 0;
    return isAscii ? (isMore ? L"all letters" : L"A to Z only") : L"no letters";
}
}  // namespace
}  // namespace windows_check
