// What the tool gives WinINet, written down once more.
#pragma once

#include <windows.h>
#include <wininet.h>

namespace windows_check
{
inline constexpr wchar_t kUserAgent[] = L"Tavik Marlin Install Manager";
inline constexpr wchar_t kReferrer[] = L"http://support.tavik.example/";
inline constexpr wchar_t kAcceptType[] = L"Accept: */*";
inline constexpr DWORD kUrlPartCharacters = 260;
inline constexpr DWORD kReceiveTimeoutMs = 90'000;
inline constexpr DWORD kSendTimeoutMs = 30'000;
inline constexpr DWORD kConnectTimeoutMs = 30'000;
inline constexpr DWORD kReceiveBufferBytes = 1'048'576;
inline constexpr DWORD kRequestFlags =
    INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_HYPERLINK | INTERNET_FLAG_PRAGMA_NOCACHE;
}  // namespace windows_check
