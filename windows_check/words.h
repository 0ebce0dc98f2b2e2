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
std::wstring Hex(std::uint32_t value);   // 0x80070005
std::wstring Quoted(std::wstring text);  // "text", characters outside of ASCII as \xxxx
std::wstring YesNo(bool yes);            // yes, no
std::wstring Lower(std::wstring text);
std::wstring Joined(const std::vector<std::wstring>& parts, const wchar_t* between = L" ");
std::wstring Widened(const std::string& text);
std::string Utf8(const std::wstring& text);
std::wstring Code(bool succeeded, DWORD error);  // "ok" or the number
std::wstring Code(bool succeeded);               // the same with the last error, so right after the call

inline std::wstring ResultOf(HRESULT code)
{
    return Hex(static_cast<std::uint32_t>(code));
}
}  // namespace windows_check
