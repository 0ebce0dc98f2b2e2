// The system's texts for error codes.
#include <windows.h>

#include <new>
#include <system_error>

#include "base/system_message.h"
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
    std::wstring shape = L"text";
    if (text.find_first_of(L"\r\n") != std::wstring::npos)
    {
        shape += L" of several lines";
    }
    if (text.back() != L' ')
    {
        return shape + L", no blank at the end";
    }
    return shape +
           (text.size() > 1 && text[text.size() - 2] == L' ' ? L", blanks at the end" : L", a blank at the end");
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
    return Saw(shared + others, detail);
}

SHORT_FACT(messages, common, Shapes({0, 2, 3, 5, 6, 32, 87, 112, 122, 183}))

SHORT_FACT(messages, further,
           Shapes({ERROR_CANCELLED, ERROR_NO_ASSOCIATION, ERROR_FILE_INVALID, ERROR_SHARING_BUFFER_EXCEEDED}))

SHORT_FACT(messages, installer, Shapes({1602, 1603, 1605, 1612, 1618, 1619, 1620, 1625, 1641, 3010}))
SHORT_FACT(messages, internet, Shapes({12002, 12007, 12029, 12030, 12031, 12152, 12175}))

FACT(messages, insert)
{
    const std::wstring text = repair::FormatSystemMessage(ERROR_BAD_EXE_FORMAT);
    return Saw(text.find(L"%1") != std::wstring::npos ? L"kept as %1" : Quoted(text), Quoted(text));
}

SHORT_FACT(messages, result,
           Saw(repair::FormatSystemMessage(0x80070005) == repair::FormatSystemMessage(5) ? L"the same text"
                                                                                         : L"another text",
               Quoted(repair::FormatSystemMessage(0x80070005))))

FACT(messages, setup)
{
    // SPAPI_E_NO_SUCH_DEVINST, SPAPI_E_NO_DRIVER_SELECTED, SPAPI_E_WRONG_INF_STYLE: the form that the inventory logs.
    return Shapes({0x800F020B, 0x800F0203, 0x800F0100});
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
    return Saw(none.empty() ? L"all have one" : L"none for" + none, detail);
}

FACT(messages, runtime_trimmed)
{
    const std::wstring text = RuntimeText(E_ACCESSDENIED);
    return Saw(text.empty() ? L"none" : Shape(text), Quoted(text));
}

FACT(messages, standard_error)
{
    const std::wstring text = Widened(std::system_error(5, std::system_category(), "x").what());
    if (!text.starts_with(L"x: ") || text.size() < 5)
    {
        return Saw(Quoted(text));
    }
    const wchar_t last = text.back();
    return Saw(last == L'.' || last == L' ' || last == L'\n' || last == L'\r' ? L"x: text, with its end"
                                                                              : L"x: text, without its end",
               Quoted(text));
}

SHORT_FACT(messages, standard_error_unknown, Saw(Widened(std::system_error(12029, std::system_category(), "x").what())))
SHORT_FACT(messages, standard_error_insert, Saw(Widened(std::system_error(193, std::system_category(), "x").what())))

FACT(messages, standard_condition)
{
    const std::error_code denied(ERROR_ACCESS_DENIED, std::system_category());
    return Saw(Number(denied.value()) +
               (denied == std::errc::permission_denied ? L", permission denied" : L", another condition"));
}
}  // namespace
}  // namespace windows_check
