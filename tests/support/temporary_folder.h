// Folders of the test's own, removed at the end.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>

#include "base/files.h"
#include "support/substitute.h"

IMPORTED(GetTempPathW)

namespace repair
{
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        wchar_t temporary[MAX_PATH + 1] = {};
        GetTempPathW(MAX_PATH + 1, temporary);
        path_ = std::wstring(temporary) + L"TavikTests" + std::to_wstring(GetCurrentProcessId()) + L"_" +
                std::to_wstring(++count_);
        EXPECT_NE(CreateDirectoryW(path_.c_str(), nullptr), FALSE);
    }
    ~TemporaryFolder()
    {
        try
        {
            RemoveAll(path_);
        }
        catch (const std::exception& error)
        {
            ADD_FAILURE() << error.what();
        }
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    // Without a trailing backslash.
    const std::wstring& Path() const { return path_; }

    // Full path of a name in it.
    std::wstring operator/(const std::wstring& name) const { return path_ + L"\\" + name; }

    // Creates the folder and returns its full path.
    std::wstring CreateFolder(const std::wstring& name) const
    {
        CreateDirectories(*this / name);
        return *this / name;
    }

    // Writes the bytes as they are and returns the full path; the folder must exist.
    std::wstring WriteBytes(const std::wstring& name, std::string_view bytes) const
    {
        const std::wstring path = *this / name;
        const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        EXPECT_NE(file, INVALID_HANDLE_VALUE);
        DWORD written = 0;
        WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        EXPECT_EQ(written, bytes.size());
        CloseHandle(file);
        return path;
    }

private:
    inline static int count_ = 0;
    std::wstring path_;
};

// A folder that the product gets as the system's temporary folder.
class SystemTemporaryFolder : public TemporaryFolder
{
public:
    std::function<void()> onAsked = [] {};

private:
    SUBSTITUTE(GetTempPathW)
    path_{[this](DWORD characters, wchar_t* buffer) {
        EXPECT_EQ(characters, 261u);
        onAsked();
        wcscpy(buffer, (Path() + L"\\").c_str());
        return static_cast<DWORD>(Path().size() + 1);
    }};
};
}  // namespace repair
