#include "windows_check/words.h"

#include <windows.h>

namespace windows_check
{
std::wstring Hex(std::uint32_t value)
{
    std::wstring text = L"0x";
    for (int shift = 28; shift >= 0; shift -= 4)
    {
        text += L"0123456789ABCDEF"[(value >> shift) & 15];
    }
    return text;
}

std::wstring Quoted(std::wstring text)
{
    std::wstring quoted = L"\"";
    for (const wchar_t c : text)
    {
        if (c >= L' ' && c < 0x7F)
        {
            quoted += c;
        }
        else
        {
            quoted += L"\\" + Hex(c).substr(6);
        }
    }
    return quoted + L"\"";
}

std::wstring YesNo(bool yes)
{
    return yes ? L"yes" : L"no";
}

std::wstring Lower(std::wstring text)
{
    CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

std::wstring Joined(const std::vector<std::wstring>& parts, const wchar_t* between)
{
    std::wstring text;
    for (size_t i = 0; i < parts.size(); ++i)
    {
        text += (i == 0 ? L"" : between) + parts[i];
    }
    return text;
}

std::wstring Widened(const std::string& text)
{
    std::wstring wide;
    for (const char c : text)
    {
        wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
    }
    return wide;
}

std::string Utf8(const std::wstring& text)
{
    const int length = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

std::wstring Code(bool succeeded)
{
    return Code(succeeded, GetLastError());
}

std::wstring Code(bool succeeded, DWORD error)
{
    return succeeded ? L"ok" : Number(error);
}
}  // namespace windows_check
