// Expectations about the exceptions of the base folder.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace repair
{
// The file error that the action throws; the test fails when it throws none.
template <typename Action>
std::filesystem::filesystem_error FileErrorOf(Action action)
{
    try
    {
        action();
    }
    catch (const std::filesystem::filesystem_error& error)
    {
        return error;
    }
    ADD_FAILURE() << "no file error was thrown";
    return std::filesystem::filesystem_error("none", std::error_code());
}

// Operation, path and Win32 code as the message shows them, and as the object carries them.
inline void ExpectFileError(const std::filesystem::filesystem_error& error, const std::string& operation,
                            const std::wstring& path, int code)
{
    EXPECT_EQ(error.code().value(), code) << error.what();
    EXPECT_EQ(error.code().category(), std::system_category());
    EXPECT_EQ(error.path1().wstring(), path);
    const std::string start = "filesystem error: " + operation + ": " + std::system_category().message(code) + " [";
    EXPECT_EQ(std::string(error.what()).substr(0, start.size()), start);
}
}  // namespace repair
