#include <cwchar>

#include "base/system_message.h"
#include "support/test.h"

IMPORTED(FormatMessageW, LocalFree)

namespace repair
{
namespace
{
// Proves: The text of a code is asked for => the system's text in one line, exactly as long as the system says, placeholders left alone; the memory is freed
TEST(SystemMessage, AsksTheSystemForOneLineAndKeepsExactlyTheLengthReturned)
{
    wchar_t* const given = static_cast<wchar_t*>(LocalAlloc(LMEM_ZEROINIT, 64));
    std::wcscpy(given, L"Some words. and more");
    void* freed = nullptr;
    SUBSTITUTE(FormatMessageW)
    format([&](DWORD flags, const void* source, DWORD code, DWORD language, wchar_t* buffer, DWORD size,
               va_list* inserts) {
        EXPECT_EQ(std::tuple(flags, source, code, language, size, inserts),
                  std::tuple(0x13FFu, nullptr, 0x800F020Bu, 0u, 0u, nullptr));
        *reinterpret_cast<wchar_t**>(buffer) = given;
        return DWORD{12};
    });
    SUBSTITUTE(LocalFree)
    free([&](HLOCAL memory) {
        freed = memory;
        return free.Original()(memory);
    });
    EXPECT_EQ(FormatSystemMessage(0x800F020B), L"Some words. ");  // the blank at the end stays
    EXPECT_EQ(freed, given);
}

// Proves: The system has no text for it => an empty text
TEST(SystemMessage, CodeWithoutATextIsEmpty)
{
    EXPECT_EQ(FormatSystemMessage(0x20001234), L"");
    EXPECT_EQ(FormatSystemMessage(12029), L"");  // texts of the internet functions are not the system's
}
}  // namespace
}  // namespace repair
