// What the code under test has written to the log since the object was made.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/log.h"

namespace repair
{
class LogCapture
{
public:
    LogCapture()
    {
        WriteLog(L"log capture begins");
        path_ = FindOwnLog();
        EXPECT_FALSE(path_.empty()) << "no log file is held open in the log folder";
        start_ = ReadAll().size();
    }

    // The lines without their line feeds.
    std::vector<std::wstring> Lines() const
    {
        std::vector<std::wstring> lines;
        std::wstring rest = ReadAll().substr(start_);
        for (size_t end = rest.find(L'\n'); end != std::wstring::npos; end = rest.find(L'\n'))
        {
            lines.push_back(rest.substr(0, end));
            rest.erase(0, end + 1);
        }
        EXPECT_TRUE(rest.empty()) << "the last line has no end";
        return lines;
    }

    // Only the lines since the last call of this function.
    std::vector<std::wstring> Take()
    {
        const std::vector<std::wstring> lines = Lines();
        start_ = ReadAll().size();
        return lines;
    }

    const std::wstring& Path() const { return path_; }

private:
    // The one log that cannot be opened for writing: this process holds it.
    static std::wstring FindOwnLog()
    {
        for (const auto& entry : std::filesystem::directory_iterator(GetLogFolder()))
        {
            const HANDLE file = CreateFileW(entry.path().c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_EXISTING, 0, nullptr);
            if (file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_SHARING_VIOLATION)
            {
                return entry.path().wstring();
            }
            CloseHandle(file);
        }
        return {};
    }

    std::wstring ReadAll() const
    {
        const HANDLE file = CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
        LARGE_INTEGER size = {};
        GetFileSizeEx(file, &size);
        std::wstring text(static_cast<size_t>(size.QuadPart) / sizeof(wchar_t), L'\0');
        DWORD read = 0;
        ReadFile(file, text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &read, nullptr);
        CloseHandle(file);
        return text;
    }

    std::wstring path_;
    size_t start_ = 0;
};
}  // namespace repair
