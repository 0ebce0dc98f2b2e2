// A web server on this PC's own loopback address, with one answer for each connection. Nothing leaves the PC.
#pragma once

#include <winsock2.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace windows_check
{
class Loopback
{
public:
    // Gives the answers in turn, one for each connection, and closes each of them; an empty answer is none at all.
    explicit Loopback(std::vector<std::string> answers);
    ~Loopback();
    Loopback(const Loopback&) = delete;
    Loopback& operator=(const Loopback&) = delete;
    Loopback(Loopback&&) = delete;
    Loopback& operator=(Loopback&&) = delete;

    unsigned short Port() const { return port_; }  // 0 when there is no server

    // Ends the server and gives what it was asked, one text a connection.
    std::vector<std::string> Requests();

private:
    void Serve();
    void End();

    std::vector<std::string> answers_;
    std::vector<std::string> requests_;
    SOCKET listener_ = INVALID_SOCKET;
    unsigned short port_ = 0;
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};
}  // namespace windows_check
