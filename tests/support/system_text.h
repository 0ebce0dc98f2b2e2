// The system's own text for a code, whatever system and language the tests run on.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

namespace repair
{
// In the user's language, without the line end after it. The test fails when there is none.
inline std::wstring SystemText(HRESULT code)
{
    wchar_t text[512] = {};
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, static_cast<DWORD>(code),
                   MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), text, 512, nullptr);
    std::wstring trimmed = text;
    trimmed.resize(trimmed.find_last_not_of(L" \r\n") + 1);
    EXPECT_FALSE(trimmed.empty());
    return trimmed;
}
}  // namespace repair
