// A server that answers every request, through WinINet's functions. What the product passes is checked on the way; a
// handle that it does not close is a failure.
#pragma once

#include <windows.h>
#include <wininet.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/substitute.h"

IMPORTED(HttpOpenRequestW, HttpQueryInfoW, HttpSendRequestW, InternetCloseHandle, InternetConnectW, InternetCrackUrlW,
         InternetGetLastResponseInfoW, InternetOpenW, InternetReadFile, InternetSetOptionW)

namespace repair
{
class FakeInternet
{
public:
    ~FakeInternet() { EXPECT_THAT(open_, testing::IsEmpty()); }

    std::vector<std::wstring> calls;
    std::vector<std::string> body = {"installer"};  // one text for each read
    DWORD status = 200;
    // The codes with which the calls fail.
    DWORD sessionError = 0;
    DWORD connectionError = 0;
    DWORD requestError = 0;
    DWORD optionError = 0;
    DWORD sendError = 0;
    DWORD queryError = 0;
    DWORD readError = 0;  // once the body is read

private:
    static HINTERNET Handle(int number) { return reinterpret_cast<HINTERNET>(static_cast<INT_PTR>(number)); }

    HINTERNET Open(DWORD error, int number)
    {
        if (error != 0)
        {
            return FailWith(error, Handle(0));
        }
        open_.insert(number);
        return Handle(number);
    }

    std::set<int> open_;

    SUBSTITUTE(InternetCrackUrlW)
    crack_{[this](const wchar_t* url, DWORD length, DWORD flags, URL_COMPONENTSW* parts) {
        EXPECT_EQ(std::tuple(length, flags, parts->dwStructSize), std::tuple(std::wstring(url).size(), 0u, 104u));
        EXPECT_NE(parts->lpszHostName, nullptr);
        EXPECT_NE(parts->lpszUrlPath, nullptr);
        EXPECT_EQ(std::tuple(parts->dwHostNameLength, parts->dwUrlPathLength), std::tuple(260u, 260u));
        EXPECT_EQ(parts->dwSchemeLength + parts->dwUserNameLength + parts->dwPasswordLength + parts->dwExtraInfoLength,
                  0u);
        calls.push_back(std::wstring(L"split ") + url);
        return RealFunction<decltype(InternetCrackUrlW)>(L"wininet.dll", "InternetCrackUrlW")(url, length, flags,
                                                                                              parts);
    }};
    SUBSTITUTE(InternetOpenW)
    session_{[this](const wchar_t* agent, DWORD access, const wchar_t* proxy, const wchar_t* bypass, DWORD flags) {
        EXPECT_STREQ(agent, L"Tavik Marlin Install Manager");
        EXPECT_EQ(std::tuple(access, proxy, bypass, flags), std::tuple(0u, nullptr, nullptr, 0u));
        calls.push_back(L"session");
        return Open(sessionError, 1);
    }};
    SUBSTITUTE(InternetConnectW)
    connection_{[this](HINTERNET session, const wchar_t* host, INTERNET_PORT port, const wchar_t* user,
                       const wchar_t* password, DWORD service, DWORD flags, DWORD_PTR context) {
        EXPECT_EQ(session, Handle(1));
        EXPECT_EQ(std::tuple(user, password, service, flags, context), std::tuple(nullptr, nullptr, 3u, 0u, 0u));
        calls.push_back(std::wstring(L"connect ") + host + L" " + std::to_wstring(port));
        return Open(connectionError, 2);
    }};
    SUBSTITUTE(HttpOpenRequestW)
    request_{[this](HINTERNET connection, const wchar_t* verb, const wchar_t* path, const wchar_t* version,
                    const wchar_t* referrer, const wchar_t** types, DWORD flags, DWORD_PTR context) {
        EXPECT_EQ(std::tuple(connection, version, context), std::tuple(Handle(2), nullptr, 0u));
        EXPECT_STREQ(verb, L"GET");
        EXPECT_STREQ(referrer, L"http://support.tavik.example/");
        EXPECT_STREQ(types[0], L"Accept: */*");
        EXPECT_EQ(types[1], nullptr);
        EXPECT_EQ(flags & ~0x00800000u, 0x84000500u);
        calls.push_back(std::wstring(L"request ") + path + ((flags & 0x00800000) != 0 ? L" encrypted" : L""));
        return Open(requestError, 3);
    }};
    SUBSTITUTE(InternetSetOptionW)
    option_{[this](HINTERNET request, DWORD option, void* value, DWORD bytes) {
        EXPECT_EQ(std::tuple(request, bytes), std::tuple(Handle(requestError != 0 ? 0 : 3), 4u));
        calls.push_back(L"option " + std::to_wstring(option) + L" " + std::to_wstring(*static_cast<DWORD*>(value)));
        return optionError != 0 ? FailWith(optionError) : TRUE;
    }};
    SUBSTITUTE(HttpSendRequestW)
    send_{[this](HINTERNET request, const wchar_t* headers, DWORD headerLength, void* data, DWORD dataLength) {
        EXPECT_EQ(std::tuple(request, headers, headerLength, data, dataLength),
                  std::tuple(Handle(3), nullptr, 0u, nullptr, 0u));
        calls.push_back(L"send");
        return sendError != 0 ? FailWith(sendError) : TRUE;
    }};
    SUBSTITUTE(HttpQueryInfoW)
    query_{[this](HINTERNET request, DWORD what, void* buffer, DWORD* bytes, DWORD* index) {
        EXPECT_EQ(std::tuple(request, what, *bytes, index), std::tuple(Handle(3), 0x20000013u, 4u, nullptr));
        calls.push_back(L"query");
        std::memcpy(buffer, &status, sizeof(status));
        return queryError != 0 ? FailWith(queryError) : TRUE;
    }};
    SUBSTITUTE(InternetReadFile)
    read_{[this](HINTERNET request, void* buffer, DWORD room, DWORD* count) {
        EXPECT_EQ(std::tuple(request, room), std::tuple(Handle(3), 1'048'576u));
        calls.push_back(L"read");
        if (body.empty())
        {
            *count = readError != 0 ? 5 : 0;  // the tool must ignore the count of a failed read
            return readError != 0 ? FailWith(readError) : TRUE;
        }
        *count = static_cast<DWORD>(body.front().copy(static_cast<char*>(buffer), room));
        body.erase(body.begin());
        return TRUE;
    }};
    SUBSTITUTE(InternetCloseHandle)
    close_{[this](HINTERNET handle) {
        const int number = static_cast<int>(reinterpret_cast<INT_PTR>(handle));
        EXPECT_EQ(open_.erase(number), 1u);
        calls.push_back(L"close " + std::to_wstring(number));
        return FailWith(ERROR_INVALID_HANDLE, TRUE);  // changes the last error
    }};
};
}  // namespace repair
