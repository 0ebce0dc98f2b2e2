#include "windows_check/words.h"

#include <windows.h>

#include <cwchar>
#include <iterator>

namespace windows_check
{
std::wstring Hex(std::uint32_t value)
{
    wchar_t text[11] = {};
    std::swprintf(text, std::size(text), L"0x%08X", value);
    return text;
}

std::wstring Quoted(const std::wstring& text)
{
    std::wstring quoted = L"\"";
    for (const wchar_t c : text)
    {
        quoted += c >= L' ' && c < 0x7F ? std::wstring(1, c) : L"\\" + Hex(c).substr(6);
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

std::wstring Environment(const std::wstring& variable)
{
    return Filled([&](wchar_t* text, DWORD size) { GetEnvironmentVariableW(variable.c_str(), text, size); });
}

std::wstring SystemFolder()
{
    return Filled([](wchar_t* path, DWORD size) { GetSystemDirectoryW(path, size); });
}

void Print(const std::wstring& text)
{
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    DWORD written = 0;
    if (GetConsoleMode(output, &mode) != 0)
    {
        WriteConsoleW(output, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        return;
    }
    const std::string bytes = Utf8(text);
    WriteFile(output, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}
}  // namespace windows_check
