#include "windows_check/loopback.h"

#include <utility>

namespace windows_check
{
namespace
{
sockaddr_in Address(unsigned short port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}
}  // namespace

Loopback::Loopback(std::vector<std::string> answers) : answers_(std::move(answers))
{
    WSADATA data = {};
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0)
    {
        return;
    }
    listener_ = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address = Address(0);
    int size = sizeof(address);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) == 0 && listen(listener_, 5) == 0 &&
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) == 0)
    {
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { Serve(); });
    }
}

Loopback::~Loopback()
{
    End();
    closesocket(listener_);
    WSACleanup();
}

std::vector<std::string> Loopback::Requests()
{
    End();
    return requests_;
}

void Loopback::Serve()
{
    for (size_t turn = 0;; ++turn)
    {
        const SOCKET client = accept(listener_, nullptr, nullptr);
        if (client == INVALID_SOCKET || isEnding_)
        {
            closesocket(client);
            return;
        }
        const DWORD patienceMs = 3000;
        setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&patienceMs), sizeof(patienceMs));
        std::string request;
        char buffer[4096];
        int count = 0;
        while (request.find("\r\n\r\n") == std::string::npos && (count = recv(client, buffer, sizeof(buffer), 0)) > 0)
        {
            request.append(buffer, static_cast<size_t>(count));
        }
        requests_.push_back(request);
        const std::string answer = turn < answers_.size() ? answers_[turn] : std::string();
        send(client, answer.data(), static_cast<int>(answer.size()), 0);
        shutdown(client, SD_SEND);
        closesocket(client);
    }
}

void Loopback::End()
{
    if (!thread_.joinable())
    {
        return;
    }
    isEnding_ = true;
    // A connection of our own ends the waiting.
    const SOCKET last = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address = Address(port_);
    static_cast<void>(connect(last, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    thread_.join();
    closesocket(last);
}
}  // namespace windows_check
