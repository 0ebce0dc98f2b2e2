// WinINet against a server on this PC's loopback address: how a download ends when something goes wrong.
#include "windows_check/loopback.h"

#include <windows.h>
#include <wininet.h>

#include <algorithm>

#include "windows_check/check.h"
#include "windows_check/request_values.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
struct Transfer
{
    bool isSent = false;
    DWORD status = 0;
    DWORD error = 0;  // of the send or of the last read
    bool isReadToEnd = false;
    DWORD firstBlock = 0;
    size_t bytes = 0;
    DWORD countAfterFailure = 0;
};

// One request with the tool's flags; without a proxy, so nothing leaves the PC.
Transfer Fetch(unsigned short port)
{
    Need(port != 0, L"no server can be started on the loopback address");
    Transfer transfer;
    const HINTERNET session = InternetOpenW(kUserAgent, INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    const HINTERNET connection =
        InternetConnectW(session, L"127.0.0.1", port, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
    const wchar_t* accept[] = {kAcceptType, nullptr};
    const HINTERNET request =
        HttpOpenRequestW(connection, L"GET", L"/drivers/x", nullptr, kReferrer, accept, kRequestFlags, 0);
    transfer.isSent = HttpSendRequestW(request, nullptr, 0, nullptr, 0) != FALSE;
    transfer.error = transfer.isSent ? 0 : GetLastError();
    DWORD size = sizeof(transfer.status);
    if (transfer.isSent)
    {
        HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &transfer.status, &size, nullptr);
    }
    std::vector<BYTE> buffer(kReceiveBufferBytes);
    while (transfer.isSent)
    {
        DWORD received = 0;
        if (InternetReadFile(request, buffer.data(), kReceiveBufferBytes, &received) == FALSE)
        {
            transfer.error = GetLastError();
            transfer.countAfterFailure = received;
            break;
        }
        if (received == 0)
        {
            transfer.isReadToEnd = true;
            break;
        }
        transfer.firstBlock = transfer.firstBlock == 0 ? received : transfer.firstBlock;
        transfer.bytes += received;
    }
    for (const HINTERNET handle : {request, connection, session})
    {
        InternetCloseHandle(handle);
    }
    return transfer;
}

std::wstring Told(const Transfer& transfer)
{
    if (!transfer.isSent)
    {
        return L"not sent: " + Number(transfer.error);
    }
    return L"status " + Number(transfer.status) + L", " + Number(transfer.bytes) + L" bytes, " +
           (transfer.isReadToEnd ? std::wstring(L"complete") : L"error " + Number(transfer.error));
}

Seen Answers(std::vector<std::string> answers)
{
    const Loopback server(std::move(answers));
    return Saw(Told(Fetch(server.Port())));
}

std::string Ok(const std::string& headers, const std::string& body)
{
    return "HTTP/1.1 200 OK\r\n" + headers + "Connection: close\r\n\r\n" + body;
}

FACT(downloads, request)
{
    Loopback server({Ok("Content-Length: 1\r\n", "x")});
    Fetch(server.Port());
    const std::vector<std::string> requests = server.Requests();
    const std::string request = requests.empty() ? "" : requests.front();
    std::wstring missing;
    for (const char* line : {"GET /drivers/x HTTP/1.1\r\n", "\r\nAccept: Accept: */*\r\n",
                             "\r\nUser-Agent: Tavik Marlin Install Manager\r\n", "\r\nPragma: no-cache\r\n"})
    {
        missing += request.find(line) == std::string::npos ? L" " + Quoted(Widened(line)) : L"";
    }
    missing += request.find("\r\nReferer: ") == std::string::npos ? L" Referer" : L"";
    return Saw(missing.empty() ? L"as wanted" : L"missing:" + missing, Quoted(Widened(request)));
}

SHORT_FACT(downloads, whole, Answers({Ok("Content-Length: 5\r\n", "abcde")}))
SHORT_FACT(downloads, without_length, Answers({Ok("", "abcde")}))

FACT(downloads, full_blocks)
{
    const Loopback server({Ok("Content-Length: 3000000\r\n", std::string(3'000'000, 'x'))});
    const Transfer transfer = Fetch(server.Port());
    return Saw(Told(transfer), L"first block " + Number(transfer.firstBlock) + L" bytes");
}

SHORT_FACT(downloads, cut_short, Answers({Ok("Content-Length: 10\r\n", "abcde")}))
SHORT_FACT(downloads, cut_chunk, Answers({Ok("Transfer-Encoding: chunked\r\n", "a\r\nabcde")}))
SHORT_FACT(downloads, closed_at_once, Answers({""}))
SHORT_FACT(downloads, not_http, Answers({"hello there, this is no HTTP\r\n"}))
SHORT_FACT(downloads, empty_body, Answers({Ok("Content-Length: 0\r\n", "")}))

SHORT_FACT(downloads, redirected,
           Answers({"HTTP/1.1 302 Found\r\nLocation: /drivers/y\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
                    Ok("Content-Length: 5\r\n", "abcde")}))

SHORT_FACT(
    downloads, redirected_308,
    Answers(
        {"HTTP/1.1 308 Permanent Redirect\r\nLocation: /drivers/y\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
         Ok("Content-Length: 5\r\n", "abcde")}))

SHORT_FACT(downloads, not_found,
           Answers({"HTTP/1.1 404 Not Found\r\nContent-Length: 2\r\nConnection: close\r\n\r\nno"}))

SHORT_FACT(downloads, compressed, Answers({Ok("Content-Length: 5\r\nContent-Encoding: gzip\r\n", "abcde")}))

FACT(downloads, no_listener)
{
    unsigned short port = 0;
    {
        const Loopback server({});
        port = server.Port();
    }
    return Saw(Told(Fetch(port)));
}
}  // namespace
}  // namespace windows_check
