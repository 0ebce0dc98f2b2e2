#include "companion/server_request.h"

#include <iterator>
#include <utility>

#include <wininet.h>

#include "base/owned.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
// As in src/acquisition/constants.h.
constexpr wchar_t kUserAgent[] = L"Tavik Marlin Install Manager";
constexpr wchar_t kAcceptType[] = L"Accept: */*";
constexpr DWORD kReceiveTimeoutMs = 90'000;
constexpr DWORD kSendTimeoutMs = 30'000;
constexpr DWORD kConnectTimeoutMs = 30'000;
constexpr DWORD kUrlPartCharacters = 260;  // with the terminator

constexpr DWORD kHeaderCharacters = 2048;

struct InternetKind
{
    using Handle = HINTERNET;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle handle) noexcept { InternetCloseHandle(handle); }
};
using InternetHandle = Owned<InternetKind>;

ServerAnswer Failed(const char* step)
{
    ServerAnswer answer;
    answer.error = GetLastError();
    answer.step = step;
    return answer;
}

// Returns an empty text if the answer has no such header.
std::wstring Header(HINTERNET request, DWORD header)
{
    wchar_t text[kHeaderCharacters] = {};
    DWORD size = sizeof(text);
    return HttpQueryInfoW(request, header, text, &size, nullptr) != FALSE ? text : L"";
}

InternetHandle OpenRequest(HINTERNET connection, const wchar_t* path, INTERNET_PORT port)
{
    const DWORD flags = INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_HYPERLINK |
                        INTERNET_FLAG_PRAGMA_NOCACHE | INTERNET_FLAG_NO_AUTO_REDIRECT |
                        (port == INTERNET_DEFAULT_HTTPS_PORT ? INTERNET_FLAG_SECURE : 0);
    const wchar_t* acceptTypes[] = {kAcceptType, nullptr};
    InternetHandle request(HttpOpenRequestW(connection, L"GET", path, nullptr, nullptr, acceptTypes, flags, 0));
    const std::pair<DWORD, DWORD> timeouts[] = {{INTERNET_OPTION_RECEIVE_TIMEOUT, kReceiveTimeoutMs},
                                                {INTERNET_OPTION_SEND_TIMEOUT, kSendTimeoutMs},
                                                {INTERNET_OPTION_CONNECT_TIMEOUT, kConnectTimeoutMs}};
    for (auto [option, milliseconds] : timeouts)
    {
        InternetSetOptionW(request.Get(), option, &milliseconds, sizeof(milliseconds));
    }
    return request;
}
}  // namespace

ServerAnswer AskServer(const std::wstring& url)
{
    wchar_t host[kUrlPartCharacters] = {};
    wchar_t path[kUrlPartCharacters] = {};
    URL_COMPONENTSW parts = {};
    parts.dwStructSize = sizeof(parts);
    parts.lpszHostName = host;
    parts.dwHostNameLength = kUrlPartCharacters;
    parts.lpszUrlPath = path;
    parts.dwUrlPathLength = kUrlPartCharacters;
    if (InternetCrackUrlW(url.c_str(), static_cast<DWORD>(url.size()), 0, &parts) == FALSE)
    {
        return Failed("address");
    }
    const InternetHandle session(InternetOpenW(kUserAgent, INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    const InternetHandle connection(
        InternetConnectW(session.Get(), host, parts.nPort, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0));
    if (!connection)
    {
        return Failed("connection");
    }
    const InternetHandle request = OpenRequest(connection.Get(), path, parts.nPort);
    ServerAnswer answer;
    DWORD size = sizeof(answer.status);
    if (HttpSendRequestW(request.Get(), nullptr, 0, nullptr, 0) == FALSE ||
        HttpQueryInfoW(request.Get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &answer.status, &size,
                       nullptr) == FALSE)
    {
        return Failed("request");
    }
    answer.location = ToUtf8(Header(request.Get(), HTTP_QUERY_LOCATION));
    const std::wstring length = Header(request.Get(), HTTP_QUERY_CONTENT_LENGTH);
    if (!length.empty())
    {
        answer.size = std::wcstoull(length.c_str(), nullptr, 10);
    }
    char start[2] = {};
    DWORD received = 0;
    InternetReadFile(request.Get(), start, sizeof(start), &received);
    answer.beginsLikeProgram = received == sizeof(start) && start[0] == 'M' && start[1] == 'Z';
    return answer;
}
}  // namespace repair
