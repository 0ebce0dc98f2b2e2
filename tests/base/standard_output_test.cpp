#include "base/standard_output.h"
#include "support/test.h"

IMPORTED(GetStdHandle, WriteFile)

namespace repair
{
namespace
{
// What the text becomes on a redirected standard output.
std::string Written(const std::wstring& text)
{
    HANDLE reader = nullptr;
    HANDLE writer = nullptr;
    EXPECT_NE(CreatePipe(&reader, &writer, nullptr, 4096), FALSE);
    {
        SUBSTITUTE(GetStdHandle)
        output([&](DWORD which) {
            EXPECT_EQ(which, STD_OUTPUT_HANDLE);
            return writer;
        });
        WriteStandardOutput(text);
    }
    CloseHandle(writer);
    char bytes[4096] = {};
    DWORD count = 0;
    ReadFile(reader, bytes, sizeof(bytes), &count, nullptr);
    CloseHandle(reader);
    return std::string(bytes, count);
}

// Proves: The standard output is a pipe => the text arrives as well
TEST(StandardOutput, TextAsItIsWithoutALineEnd)
{
    EXPECT_EQ(Written(L"one\ntwo\t3"), "one\ntwo\t3");
    EXPECT_EQ(Written(std::wstring(3000, L'x')), std::string(3000, 'x'));
}

// Proves: The path has characters that the standard output cannot show, or there is no standard output => question marks; nothing is written
TEST(StandardOutput, CharacterThatTheCodePageLacksIsAQuestionMarkAndTheRestFollows)
{
    if (GetACP() == CP_UTF8)
    {
        GTEST_SKIP() << "this system's code page has every character";
    }
    EXPECT_EQ(Written(L"a\u4e00b"), "a?b");
}

TEST(StandardOutput, NothingHappensWithoutOne)
{
    int writes = 0;
    SUBSTITUTE(WriteFile)
    write([&](auto...) { return ++writes, TRUE; });
    for (const HANDLE none : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE})
    {
        SUBSTITUTE(GetStdHandle) output([&](DWORD) { return none; });
        WriteStandardOutput(L"text");
    }
    EXPECT_EQ(writes, 0);
}
}  // namespace
}  // namespace repair
