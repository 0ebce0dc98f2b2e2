// Numbers and texts as the table shows them.
#pragma once

#include <windows.h>

#include <concepts>
#include <cstdint>
#include <string>
#include <vector>

namespace windows_check
{
template <std::integral Integer>
std::wstring Number(Integer value)  // 183
{
    return std::to_wstring(value);
}
std::wstring Hex(std::uint32_t value);          // 0x80070005
std::wstring Quoted(const std::wstring& text);  // "text", characters outside of ASCII as \xxxx
std::wstring YesNo(bool yes);                   // yes, no
std::wstring Lower(std::wstring text);
std::wstring Joined(const std::vector<std::wstring>& parts, const wchar_t* between = L" ");
std::wstring Widened(const std::string& text);
std::string Utf8(const std::wstring& text);
std::wstring Code(bool succeeded, DWORD error);  // "ok" or the number
std::wstring Code(bool succeeded);               // the same with the last error; use it right after the call

inline std::wstring ResultOf(HRESULT code)
{
    return Hex(static_cast<std::uint32_t>(code));
}

// The answers to one question about several things.
template <typename Ask>
std::wstring OfEach(const std::vector<std::wstring>& things, Ask ask)
{
    std::vector<std::wstring> answers;
    answers.reserve(things.size());
    for (const std::wstring& thing : things)
    {
        answers.push_back(ask(thing));
    }
    return Joined(answers);
}

// The text that a call writes into a buffer; the call gets the buffer and its size in characters.
template <typename Call>
std::wstring Filled(Call call)
{
    wchar_t buffer[2 * MAX_PATH] = {};
    call(buffer, static_cast<DWORD>(2 * MAX_PATH));
    return buffer;
}
std::wstring Environment(const std::wstring& variable);
std::wstring SystemFolder();

// Writes to the console or, as UTF-8, to the file or pipe that takes its place.
void Print(const std::wstring& text);
}  // namespace windows_check
