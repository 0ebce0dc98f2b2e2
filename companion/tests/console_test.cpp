// What each call writes to the standard output.
#include "companion/console.h"

#include <string>

#include <windows.h>

#include <gtest/gtest.h>

#include "base/handles.h"

using namespace repair;

TEST(Console, NoCallSplitsACharacter)
{
    constexpr wchar_t kName[] = L"\\\\.\\pipe\\console_test";
    constexpr DWORD kRoom = 65'536;
    std::string text(16'382, 'x');
    text += "\U0001F600";
    text.append(16'380, 'x');
    text += "\U0001F600!";
    // In this mode each call writes one message.
    const FileHandle reader(CreateNamedPipeW(kName, PIPE_ACCESS_INBOUND, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1,
                                             kRoom, kRoom, 0, nullptr));
    const FileHandle writer(CreateFileW(kName, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(reader && writer);
    const HANDLE before = GetStdHandle(STD_OUTPUT_HANDLE);
    SetStdHandle(STD_OUTPUT_HANDLE, writer.Get());
    WriteOutput(text);
    SetStdHandle(STD_OUTPUT_HANDLE, before);
    const size_t sizes[] = {16'382, 16'384, 5};
    std::string piece(kRoom, '\0');
    for (const size_t size : sizes)
    {
        DWORD got = 0;
        ASSERT_NE(ReadFile(reader.Get(), piece.data(), kRoom, &got, nullptr), 0);
        EXPECT_EQ(got, size);
    }
}
