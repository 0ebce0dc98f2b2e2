// Windows Runtime strings.
#pragma once
#include <windows.h>
#include <winstring.h>

#include <string>

namespace lab
{
inline HRESULT GiveString(const std::wstring& text, HSTRING* string)
{
    return WindowsCreateString(text.c_str(), static_cast<UINT32>(text.size()), string);
}

inline std::wstring TextOf(HSTRING string)
{
    UINT32 length = 0;
    const wchar_t* const text = WindowsGetStringRawBuffer(string, &length);
    return std::wstring(text, length);
}
}  // namespace lab
