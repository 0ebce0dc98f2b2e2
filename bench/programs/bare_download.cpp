#include "bare_download.h"

#include <windows.h>
#include <wininet.h>

#include <memory>

namespace bench
{
namespace
{
constexpr DWORD kBufferBytes = 1'048'576;
constexpr DWORD kPartCharacters = 260;

void SetTimeouts(HINTERNET request)
{
    const DWORD options[][2] = {{INTERNET_OPTION_RECEIVE_TIMEOUT, 90'000},
                                {INTERNET_OPTION_SEND_TIMEOUT, 30'000},
                                {INTERNET_OPTION_CONNECT_TIMEOUT, 30'000}};
    for (const DWORD(&option)[2] : options)
    {
        DWORD milliseconds = option[1];
        InternetSetOptionW(request, option[0], &milliseconds, sizeof(milliseconds));
    }
}

bool Copy(HINTERNET request, HANDLE file)
{
    const auto buffer = std::make_unique<char[]>(kBufferBytes);
    DWORD received = 0;
    do
    {
        DWORD written = 0;
        if (InternetReadFile(request, buffer.get(), kBufferBytes, &received) == FALSE ||
            WriteFile(file, buffer.get(), received, &written, nullptr) == 0)
            return false;
    } while (received != 0);
    return true;
}

}  // namespace

int Download(const wchar_t* url, const wchar_t* temporary, const wchar_t* final)
{
    wchar_t host[kPartCharacters] = {};
    wchar_t path[kPartCharacters] = {};
    URL_COMPONENTSW parts = {};
    parts.dwStructSize = sizeof(parts);
    parts.lpszHostName = host;
    parts.dwHostNameLength = kPartCharacters;
    parts.lpszUrlPath = path;
    parts.dwUrlPathLength = kPartCharacters;
    if (InternetCrackUrlW(url, 0, 0, &parts) == FALSE)
        return 1;
    const HINTERNET session = InternetOpenW(L"bare loop", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
    const HINTERNET connection =
        InternetConnectW(session, host, parts.nPort, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
    if (connection == nullptr)
        return 2;
    DeleteFileW(final);
    DeleteFileW(temporary);
    const HANDLE file =
        CreateFileW(temporary, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return 3;
    DWORD flags =
        INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_HYPERLINK | INTERNET_FLAG_PRAGMA_NOCACHE;
    if (parts.nPort == INTERNET_DEFAULT_HTTPS_PORT)
        flags |= INTERNET_FLAG_SECURE;
    const wchar_t* types[] = {L"*/*", nullptr};
    const HINTERNET request = HttpOpenRequestW(connection, L"GET", path, nullptr, nullptr, types, flags, 0);
    SetTimeouts(request);
    DWORD status = 0;
    DWORD size = sizeof(status);
    if (HttpSendRequestW(request, nullptr, 0, nullptr, 0) == FALSE ||
        HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr) == FALSE ||
        status != HTTP_STATUS_OK)
    {
        CloseHandle(file);
        return 4;
    }
    const bool copied = Copy(request, file);
    FlushFileBuffers(file);
    CloseHandle(file);
    if (!copied)
        return 5;
    const bool moved = MoveFileW(temporary, final) != 0;
    InternetCloseHandle(request);
    InternetCloseHandle(connection);
    InternetCloseHandle(session);
    return moved ? 0 : 6;
}
}  // namespace bench
