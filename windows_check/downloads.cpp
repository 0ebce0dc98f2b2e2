// WinINet: addresses and time limits without a connection, and downloads from a server on this PC's own loopback
// address. Nothing leaves the PC.
#include <windows.h>
#include <wininet.h>
#include <winsock2.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/owned.h"
#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
// What the tool gives WinINet, written down once more.
constexpr wchar_t kUserAgent[] = L"Tavik Marlin Install Manager";
constexpr wchar_t kReferrer[] = L"http://support.tavik.example/";
constexpr wchar_t kAcceptType[] = L"Accept: */*";
constexpr DWORD kUrlPartCharacters = 260;
constexpr DWORD kReceiveBufferBytes = 1'048'576;
constexpr DWORD kRequestFlags =
    INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_HYPERLINK | INTERNET_FLAG_PRAGMA_NOCACHE;

// Host, port and path of an address as the tool asks for them, or the error.
std::wstring Split(const std::wstring& address)
{
    wchar_t host[kUrlPartCharacters] = {};
    wchar_t path[kUrlPartCharacters] = {};
    URL_COMPONENTSW parts = {};
    parts.dwStructSize = sizeof(parts);
    parts.lpszHostName = host;
    parts.dwHostNameLength = kUrlPartCharacters;
    parts.lpszUrlPath = path;
    parts.dwUrlPathLength = kUrlPartCharacters;
    if (InternetCrackUrlW(address.c_str(), static_cast<DWORD>(address.size()), 0, &parts) == FALSE)
    {
        return Number(GetLastError());
    }
    return Quoted(std::wstring(host) + L" " + Number(parts.nPort) + L" " + path);
}

SHORT_FACT(internet, split,
           OfEach({L"https://a.example/b/c.txt", L"http://a.example:8080/b?c=d#e", L"http://a.example/a b/%20/\u00E9"},
                  Split))

FACT(internet, long_parts)
{
    const std::wstring start = L"http://a.example/";
    const std::wstring fits = Split(start + std::wstring(258, L'x'));
    return (fits.size() > 258 ? L"fits" : fits) + L", one more: " + Split(start + std::wstring(259, L'x')) +
           L", host: " + Split(L"http://" + std::wstring(260, L'h') + L"/");
}

struct InternetKind
{
    using Handle = HINTERNET;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle handle) noexcept { InternetCloseHandle(handle); }
};
using InternetHandle = repair::Owned<InternetKind>;

// A request with the tool's values, not sent yet.
struct Request
{
    InternetHandle session;
    InternetHandle connection;
    InternetHandle request;

    Request(DWORD access, const wchar_t* host, INTERNET_PORT port)
        : session(InternetOpenW(kUserAgent, access, nullptr, nullptr, 0)),
          connection(InternetConnectW(session.Get(), host, port, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0))
    {
        const wchar_t* accept[] = {kAcceptType, nullptr};
        request = InternetHandle(
            HttpOpenRequestW(connection.Get(), L"GET", L"/drivers/x", nullptr, kReferrer, accept, kRequestFlags, 0));
    }
};

FACT(internet, timeouts)
{
    const Request request(INTERNET_OPEN_TYPE_PRECONFIG, L"unknown.invalid", 80);
    std::vector<std::wstring> seen;
    const std::pair<DWORD, DWORD> wanted[] = {{INTERNET_OPTION_RECEIVE_TIMEOUT, 90'000},
                                              {INTERNET_OPTION_SEND_TIMEOUT, 30'000},
                                              {INTERNET_OPTION_CONNECT_TIMEOUT, 30'000}};
    for (auto [option, milliseconds] : wanted)
    {
        InternetSetOptionW(request.request.Get(), option, &milliseconds, sizeof(milliseconds));
        DWORD kept = 0;
        DWORD size = sizeof(kept);
        InternetQueryOptionW(request.request.Get(), option, &kept, &size);
        seen.push_back(Number(kept));
    }
    return Joined(seen);
}

FACT(internet, no_response_text)
{
    DWORD error = 77;
    DWORD length = 0;
    const BOOL isAnswered = InternetGetLastResponseInfoW(&error, nullptr, &length);
    return Code(isAnswered != FALSE) + L", " + Number(length) + L" characters";
}

SOCKET NewSocket()
{
    WSADATA data = {};
    WSAStartup(MAKEWORD(2, 2), &data);
    return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
}

// A web server with one answer for each connection, which it then closes; an empty answer is none at all.
class Loopback
{
public:
    explicit Loopback(std::vector<std::string> answers) : answers_(std::move(answers))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int size = sizeof(address);
        const bool isListening = bind(listener_, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                                 listen(listener_, 5) == 0 &&
                                 getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) == 0;
        Need(isListening, L"no server can be started on the loopback address");
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { Serve(); });
    }
    ~Loopback()
    {
        isEnding_ = true;
        thread_.join();
        closesocket(listener_);
        WSACleanup();
    }
    Loopback(const Loopback&) = delete;
    Loopback& operator=(const Loopback&) = delete;
    Loopback(Loopback&&) = delete;
    Loopback& operator=(Loopback&&) = delete;

    unsigned short Port() const { return port_; }
    const std::string& FirstRequest() const { return firstRequest_; }  // complete when its answer has come

private:
    bool HasClient() const
    {
        fd_set waiting = {};
        FD_SET(listener_, &waiting);
        timeval patience = {0, 20'000};  // NOLINT(misc-const-correctness): not const in the headers of Debian 12
        return select(0, &waiting, nullptr, nullptr, &patience) > 0;
    }

    void Serve()
    {
        for (size_t turn = 0; !isEnding_;)
        {
            if (HasClient())
            {
                Answer(accept(listener_, nullptr, nullptr), turn++);
            }
        }
    }

    void Answer(SOCKET client, size_t turn)
    {
        const DWORD patienceMs = 3000;
        setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&patienceMs), sizeof(patienceMs));
        std::string request;
        char buffer[4096];
        int count = 0;
        while (request.find("\r\n\r\n") == std::string::npos && (count = recv(client, buffer, sizeof(buffer), 0)) > 0)
        {
            request.append(buffer, static_cast<size_t>(count));
        }
        firstRequest_ = turn == 0 ? request : firstRequest_;
        const std::string answer = turn < answers_.size() ? answers_[turn] : std::string();
        send(client, answer.data(), static_cast<int>(answer.size()), 0);
        shutdown(client, SD_SEND);
        closesocket(client);
    }

    std::vector<std::string> answers_;
    std::string firstRequest_;
    SOCKET listener_ = NewSocket();
    unsigned short port_ = 0;
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};

// How one request with the tool's values ends; without a proxy.
std::wstring Fetch(const Loopback& server)
{
    const Request request(INTERNET_OPEN_TYPE_DIRECT, L"127.0.0.1", server.Port());
    if (HttpSendRequestW(request.request.Get(), nullptr, 0, nullptr, 0) == FALSE)
    {
        return L"not sent: " + Number(GetLastError());
    }
    DWORD status = 0;
    DWORD size = sizeof(status);
    HttpQueryInfoW(request.request.Get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr);
    std::vector<BYTE> buffer(kReceiveBufferBytes);
    size_t bytes = 0;
    DWORD received = 0;
    std::wstring end = L"complete";
    do
    {
        if (InternetReadFile(request.request.Get(), buffer.data(), kReceiveBufferBytes, &received) == FALSE)
        {
            end = L"error " + Number(GetLastError());
            break;
        }
        bytes += received;
    } while (received > 0);
    return L"status " + Number(status) + L", " + Number(bytes) + L" bytes, " + end;
}

std::wstring Answers(std::vector<std::string> answers)
{
    return Fetch(Loopback(std::move(answers)));
}

std::string Ok(const std::string& headers, const std::string& body)
{
    return "HTTP/1.1 200 OK\r\n" + headers + "Connection: close\r\n\r\n" + body;
}

FACT(downloads, request)
{
    const Loopback server({Ok("Content-Length: 1\r\n", "x")});
    Fetch(server);
    std::wstring missing;
    for (const char* line : {"GET /drivers/x HTTP/1.1\r\n", "\r\nAccept: Accept: */*\r\n", "\r\nReferer: ",
                             "\r\nUser-Agent: Tavik Marlin Install Manager\r\n", "\r\nPragma: no-cache\r\n"})
    {
        missing += server.FirstRequest().find(line) == std::string::npos ? L" " + Quoted(Widened(line)) : L"";
    }
    return {missing.empty() ? L"as wanted" : L"missing:" + missing, Quoted(Widened(server.FirstRequest()))};
}

SHORT_FACT(downloads, without_length, Answers({Ok("", "abcde")}))
SHORT_FACT(downloads, full_blocks, Answers({Ok("Content-Length: 3000000\r\n", std::string(3'000'000, 'x'))}))
SHORT_FACT(downloads, cut_short, Answers({Ok("Content-Length: 10\r\n", "abcde")}))
SHORT_FACT(downloads, cut_chunk, Answers({Ok("Transfer-Encoding: chunked\r\n", "a\r\nabcde")}))
SHORT_FACT(downloads, closed_at_once, Answers({""}))
SHORT_FACT(downloads, not_http, Answers({"hello there, this is no HTTP\r\n"}))
SHORT_FACT(downloads, compressed, Answers({Ok("Content-Length: 5\r\nContent-Encoding: gzip\r\n", "abcde")}))

SHORT_FACT(downloads, redirected,
           Answers({"HTTP/1.1 302 Found\r\nLocation: /drivers/y\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
                    Ok("Content-Length: 5\r\n", "abcde")}))

SHORT_FACT(downloads, not_found,
           Answers({"HTTP/1.1 404 Not Found\r\nContent-Length: 2\r\nConnection: close\r\n\r\nno"}))
}  // namespace
}  // namespace windows_check
