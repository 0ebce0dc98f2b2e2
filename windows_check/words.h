// Numbers and texts as the table shows them.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace windows_check
{
std::wstring Hex(std::uint32_t value);   // 0x80070005
std::wstring Number(long long value);    // 183
std::wstring Quoted(std::wstring text);  // "text", characters outside of ASCII as \xxxx
std::wstring YesNo(bool yes);            // yes, no
std::wstring Widened(const std::string& text);
std::string Utf8(const std::wstring& text);
std::wstring Code(bool succeeded, DWORD error);  // "ok" or the number
std::wstring Code(bool succeeded);               // the same with the last error: asked for after the call was made

inline std::wstring ResultOf(HRESULT code)
{
    return Hex(static_cast<std::uint32_t>(code));
}
}  // namespace windows_check
