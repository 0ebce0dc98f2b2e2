// A small HTTP server on a loopback port of its own. It answers one connection after the other, by path, and keeps what
// it was asked.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace repair
{
class HttpServer
{
public:
    // The answers, complete with status line and headers, by path; "{port}" in one becomes the port.
    explicit HttpServer(std::map<std::string, std::string> answers) : answers_(std::move(answers))
    {
        WSADATA data = {};
        EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
        listener_ = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        int size = sizeof(address);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
        EXPECT_EQ(listen(listener_, 5), 0);
        thread_ = std::thread([this] { Serve(); });
    }
    ~HttpServer()
    {
        // A connection of our own ends the waiting; closing the listener does not on every system.
        stopping_ = true;
        const SOCKET last = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port_);
        connect(last, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        thread_.join();
        closesocket(last);
        closesocket(listener_);
        WSACleanup();
    }
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    HttpServer(HttpServer&&) = delete;
    HttpServer& operator=(HttpServer&&) = delete;

    std::wstring Port() const { return std::to_wstring(port_); }

    // Whole requests in the order of their arrival; to be asked when the client is done.
    const std::vector<std::string>& Requests() const { return requests_; }

private:
    void Serve()
    {
        for (;;)
        {
            const SOCKET client = accept(listener_, nullptr, nullptr);
            if (client == INVALID_SOCKET || stopping_)
            {
                closesocket(client);
                return;
            }
            Answer(client);
            shutdown(client, SD_SEND);
            closesocket(client);
        }
    }

    void Answer(SOCKET client)
    {
        const DWORD patience = 5000;
        setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&patience), sizeof(patience));
        std::string request;
        while (request.find("\r\n\r\n") == std::string::npos)
        {
            char buffer[4096] = {};
            const int count = recv(client, buffer, sizeof(buffer), 0);
            if (count <= 0)
            {
                return;
            }
            request.append(buffer, static_cast<size_t>(count));
        }
        requests_.push_back(request);
        const size_t start = request.find(' ') + 1;
        const auto found = answers_.find(request.substr(start, request.find(' ', start) - start));
        std::string answer = found == answers_.end() ? "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n"
                                                       "Connection: close\r\n\r\n"
                                                     : found->second;
        const std::string mark = "{port}";
        if (const size_t place = answer.find(mark); place != std::string::npos)
        {
            answer.replace(place, mark.size(), std::to_string(port_));
        }
        send(client, answer.data(), static_cast<int>(answer.size()), 0);
    }

    std::map<std::string, std::string> answers_;
    SOCKET listener_ = INVALID_SOCKET;
    unsigned short port_ = 0;
    std::atomic<bool> stopping_ = false;
    std::vector<std::string> requests_;
    std::thread thread_;
};
}  // namespace repair
