// A server that does not exist, answered through WinINet's functions, and a temporary folder of the test's own. What
// the code under test does, also to its file and to the log, is recorded in order; what it passes is checked.
#pragma once

#include <windows.h>

#include <wininet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(CloseHandle)
IMPORTED(CreateFileW)
IMPORTED(DeleteFileW)
IMPORTED(FlushFileBuffers)
IMPORTED(GetTempPathW)
IMPORTED(HttpOpenRequestW)
IMPORTED(HttpQueryInfoW)
IMPORTED(HttpSendRequestW)
IMPORTED(InternetCloseHandle)
IMPORTED(InternetConnectW)
IMPORTED(InternetCrackUrlW)
IMPORTED(InternetGetLastResponseInfoW)
IMPORTED(InternetOpenW)
IMPORTED(InternetReadFile)
IMPORTED(InternetSetOptionW)
IMPORTED(MoveFileW)
IMPORTED(WriteFile)

namespace repair
{
class MadeUpInternet : public testing::Test
{
protected:
    MadeUpInternet() { MachineRegistry::SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", L"http://server/f/"); }

    std::wstring Folder() const { return temporary_ / L"Tavik_VLTInstallerDownload"; }
    std::wstring TemporaryPath() const { return Folder() + L"\\dwx2_install.exe.tmp"; }
    std::wstring FinalPath() const { return Folder() + L"\\dwx2_install.exe"; }

    static HINTERNET Handle(int number) { return reinterpret_cast<HINTERNET>(static_cast<INT_PTR>(number)); }

    static bool IsThere(const std::wstring& path)
    {
        return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    }

    static std::string Content(const std::wstring& path)
    {
        const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(file, INVALID_HANDLE_VALUE) << "still open, or not there";
        std::string bytes(4096, '\0');
        DWORD count = 0;
        ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
        CloseHandle(file);
        return bytes.substr(0, count);
    }

    // Puts a file into the download folder, unrecorded, and returns its path.
    std::wstring Put(const std::wstring& name, const std::string& bytes)
    {
        const bool wasRecording = recording_;
        recording_ = false;
        CreateDirectories(Folder());
        const std::wstring path = temporary_.WriteBytes(L"Tavik_VLTInstallerDownload\\" + name, bytes);
        recording_ = wasRecording;
        return path;
    }

    void Add(const std::wstring& call)
    {
        if (recording_)
        {
            calls_.push_back(call);
        }
    }

    // Every one of these that is open when the call is over is a leak.
    void TearDown() override
    {
        std::sort(closed_.begin(), closed_.end());
        std::sort(opened_.begin(), opened_.end());
        EXPECT_EQ(closed_, opened_);
    }

    MachineRegistry registry_;
    TemporaryFolder temporary_;
    LogCapture log_;
    std::vector<std::wstring> calls_;
    std::vector<int> opened_;
    std::vector<int> closed_;
    bool recording_ = true;  // off: what the test itself does
    HANDLE file_ = INVALID_HANDLE_VALUE;

    // What the server and the system do.
    std::vector<std::string> body_ = {"installer"};
    DWORD status_ = 200;
    DWORD openError_ = 0;
    DWORD connectError_ = 0;
    DWORD requestError_ = 0;
    DWORD optionError_ = 0;
    DWORD sendError_ = 0;
    DWORD queryError_ = 0;
    DWORD readError_ = 0;  // once the body is read
    DWORD createError_ = 0;
    DWORD writeError_ = 0;
    DWORD moveError_ = 0;

private:
    HINTERNET Open(int number)
    {
        opened_.push_back(number);
        return Handle(number);
    }

    SUBSTITUTE(GetTempPathW)
    temp_{[this](DWORD characters, wchar_t* buffer) {
        EXPECT_EQ(characters, 261u);
        Add(L"temporary path");
        const std::wstring path = temporary_.Path() + L"\\";
        path.copy(buffer, path.size());
        return static_cast<DWORD>(path.size());
    }};
    SUBSTITUTE(InternetCrackUrlW)
    crack_{[this](const wchar_t* url, DWORD length, DWORD flags, URL_COMPONENTSW* parts) {
        EXPECT_EQ(length, std::wstring(url).size());
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(parts->dwStructSize, 104u);
        EXPECT_NE(parts->lpszHostName, nullptr);
        EXPECT_EQ(parts->dwHostNameLength, 260u);
        EXPECT_NE(parts->lpszUrlPath, nullptr);
        EXPECT_EQ(parts->dwUrlPathLength, 260u);
        EXPECT_EQ(parts->dwSchemeLength + parts->dwUserNameLength + parts->dwPasswordLength + parts->dwExtraInfoLength,
                  0u);
        Add(std::wstring(L"split ") + url + (IsThere(Folder()) ? L"" : L" without the folder"));
        return RealFunction<decltype(InternetCrackUrlW)>(L"wininet.dll", "InternetCrackUrlW")(url, length, flags,
                                                                                              parts);
    }};
    SUBSTITUTE(InternetOpenW)
    session_{[this](const wchar_t* agent, DWORD access, const wchar_t* proxy, const wchar_t* bypass,
                    DWORD flags) -> HINTERNET {
        EXPECT_STREQ(agent, L"Tavik Marlin Install Manager");
        EXPECT_EQ(access, 0u);
        EXPECT_EQ(proxy, nullptr);
        EXPECT_EQ(bypass, nullptr);
        EXPECT_EQ(flags, 0u);
        Add(L"session");
        return openError_ != 0 ? FailWith(openError_, Handle(0)) : Open(1);
    }};
    SUBSTITUTE(InternetConnectW)
    connection_{[this](HINTERNET session, const wchar_t* host, INTERNET_PORT port, const wchar_t* user,
                       const wchar_t* password, DWORD service, DWORD flags, DWORD_PTR context) -> HINTERNET {
        EXPECT_EQ(session, Handle(1));
        EXPECT_EQ(user, nullptr);
        EXPECT_EQ(password, nullptr);
        EXPECT_EQ(service, 3u);
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(context, 0u);
        Add(std::wstring(L"connect ") + host + L" " + std::to_wstring(port));
        return connectError_ != 0 ? FailWith(connectError_, Handle(0)) : Open(2);
    }};
    SUBSTITUTE(HttpOpenRequestW)
    request_{[this](HINTERNET connection, const wchar_t* verb, const wchar_t* path, const wchar_t* version,
                    const wchar_t* referrer, const wchar_t** types, DWORD flags, DWORD_PTR context) -> HINTERNET {
        EXPECT_EQ(connection, Handle(2));
        EXPECT_STREQ(verb, L"GET");
        EXPECT_EQ(version, nullptr);
        EXPECT_STREQ(referrer, L"http://support.tavik.example/");
        EXPECT_STREQ(types[0], L"Accept: */*");
        EXPECT_EQ(types[1], nullptr);
        EXPECT_EQ(context, 0u);
        wchar_t hexadecimal[16] = {};
        _snwprintf(hexadecimal, 15, L"%08X", static_cast<unsigned>(flags));
        Add(std::wstring(L"request ") + path + L" " + hexadecimal);
        return requestError_ != 0 ? FailWith(requestError_, Handle(0)) : Open(3);
    }};
    SUBSTITUTE(InternetSetOptionW)
    option_{[this](HINTERNET request, DWORD option, void* value, DWORD bytes) {
        EXPECT_EQ(request, Handle(requestError_ != 0 ? 0 : 3));
        EXPECT_EQ(bytes, 4u);
        Add(L"option " + std::to_wstring(option) + L" " + std::to_wstring(*static_cast<DWORD*>(value)));
        return optionError_ != 0 ? FailWith(optionError_) : TRUE;
    }};
    SUBSTITUTE(HttpSendRequestW)
    send_{[this](HINTERNET request, const wchar_t* headers, DWORD headerLength, void* body, DWORD bodyLength) {
        EXPECT_EQ(request, Handle(3));
        EXPECT_EQ(headers, nullptr);
        EXPECT_EQ(headerLength, 0u);
        EXPECT_EQ(body, nullptr);
        EXPECT_EQ(bodyLength, 0u);
        Add(L"send");
        return sendError_ != 0 ? FailWith(sendError_) : TRUE;
    }};
    SUBSTITUTE(HttpQueryInfoW)
    query_{[this](HINTERNET request, DWORD what, void* buffer, DWORD* bytes, DWORD* index) {
        EXPECT_EQ(request, Handle(3));
        EXPECT_EQ(what, 0x20000013u);
        EXPECT_EQ(*bytes, 4u);
        EXPECT_EQ(index, nullptr);
        Add(L"query");
        std::memcpy(buffer, &status_, sizeof(status_));
        return queryError_ != 0 ? FailWith(queryError_) : TRUE;
    }};
    SUBSTITUTE(InternetReadFile)
    read_{[this](HINTERNET request, void* buffer, DWORD room, DWORD* count) {
        EXPECT_EQ(request, Handle(3));
        EXPECT_EQ(room, 1'048'576u);
        Add(L"read");
        if (body_.empty())
        {
            *count = readError_ != 0 ? 5 : 0;  // a failing read may count what is not to be used
            return readError_ != 0 ? FailWith(readError_) : TRUE;
        }
        body_.front().copy(static_cast<char*>(buffer), body_.front().size());
        *count = static_cast<DWORD>(body_.front().size());
        body_.erase(body_.begin());
        return TRUE;
    }};
    SUBSTITUTE(InternetCloseHandle)
    closeInternet_{[this](HINTERNET handle) {
        const int number = static_cast<int>(reinterpret_cast<INT_PTR>(handle));
        closed_.push_back(number);
        Add(L"close " + std::to_wstring(number));
        return FailWith(ERROR_INVALID_HANDLE) == FALSE;  // leaves another error behind
    }};
    SUBSTITUTE(CreateFileW)
    create_{[this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                   DWORD flags, HANDLE pattern) {
        if (path != TemporaryPath() || disposition == OPEN_EXISTING || !recording_)
        {
            return create_.Original()(path, access, share, security, disposition, flags, pattern);
        }
        EXPECT_EQ(access, 0x40000000u);
        EXPECT_EQ(share, 0u);
        EXPECT_EQ(security, nullptr);
        EXPECT_EQ(disposition, 2u);
        EXPECT_EQ(flags, 0x80u);
        EXPECT_EQ(pattern, nullptr);
        Add(L"create file");
        if (createError_ != 0)
        {
            return FailWith(createError_, INVALID_HANDLE_VALUE);
        }
        file_ = create_.Original()(path, access, share, security, disposition, flags, pattern);
        opened_.push_back(4);
        return file_;
    }};
    SUBSTITUTE(WriteFile)
    write_{[this](HANDLE file, const void* data, DWORD bytes, DWORD* written, OVERLAPPED* overlapped) {
        if (file != file_)
        {
            const std::wstring text(static_cast<const wchar_t*>(data), bytes / sizeof(wchar_t));
            if (text != L"\n")
            {
                Add(L"log " + text);
            }
        }
        else
        {
            Add(L"write " + std::to_wstring(bytes));
            if (writeError_ != 0)
            {
                return FailWith(writeError_);
            }
        }
        return write_.Original()(file, data, bytes, written, overlapped);
    }};
    SUBSTITUTE(FlushFileBuffers)
    flush_{[this](HANDLE file) {
        EXPECT_EQ(file, file_);
        Add(L"flush");
        return flush_.Original()(file);
    }};
    SUBSTITUTE(CloseHandle)
    close_{[this](HANDLE handle) {
        if (handle == file_ && handle != INVALID_HANDLE_VALUE)
        {
            Add(L"close file");
            closed_.push_back(4);
            file_ = INVALID_HANDLE_VALUE;
        }
        const BOOL result = close_.Original()(handle);
        SetLastError(ERROR_NOT_OWNER);  // leaves another error behind
        return result;
    }};
    SUBSTITUTE(DeleteFileW)
    delete_{[this](const wchar_t* path) {
        Add(std::wstring(L"delete ") + (path + Folder().size() + 1));
        return delete_.Original()(path);
    }};
    SUBSTITUTE(MoveFileW)
    move_{[this](const wchar_t* from, const wchar_t* to) {
        EXPECT_EQ(std::wstring(from), TemporaryPath());
        EXPECT_EQ(std::wstring(to), FinalPath());
        Add(L"rename");
        return moveError_ != 0 ? FailWith(moveError_) : move_.Original()(from, to);
    }};
};
}  // namespace repair
