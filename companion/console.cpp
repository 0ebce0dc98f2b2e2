#include "companion/console.h"

#include <algorithm>

#include <windows.h>

#include "base/system_message.h"
#include "companion/failure.h"

namespace repair
{
namespace
{
constexpr size_t kMostAtOnce = 16'384;  // a console takes less than 64 KB in one call

// As many of the first bytes as may go out at once, without a part of a character at their end: a console would show
// the two parts as two unknown ones. A character has four bytes at the most.
size_t FirstPart(std::string_view bytes)
{
    size_t size = std::min(bytes.size(), kMostAtOnce);
    for (int i = 0; i < 3 && size < bytes.size() && (static_cast<unsigned char>(bytes[size]) & 0xC0) == 0x80; ++i)
    {
        --size;
    }
    return size;
}

// False when not all of it could be written; the reason is the last error.
bool Write(DWORD stream, std::string_view bytes)
{
    const HANDLE handle = GetStdHandle(stream);
    while (!bytes.empty())
    {
        DWORD written = 0;
        const auto size = static_cast<DWORD>(FirstPart(bytes));
        if (WriteFile(handle, bytes.data(), size, &written, nullptr) == 0 || written == 0)
        {
            return false;
        }
        bytes.remove_prefix(written);
    }
    return true;
}
}  // namespace

Utf8Console::Utf8Console() : before_(GetConsoleOutputCP())
{
    if (before_ != 0)
    {
        SetConsoleOutputCP(CP_UTF8);
    }
}

Utf8Console::~Utf8Console()
{
    if (before_ != 0)
    {
        SetConsoleOutputCP(before_);
    }
}

void WriteOutput(std::string_view utf8)
{
    if (!Write(STD_OUTPUT_HANDLE, utf8))
    {
        throw Failure(SystemFailure("the output cannot be written", GetLastError()));
    }
}

void WriteError(std::string_view utf8)
{
    Write(STD_ERROR_HANDLE, utf8);
}
}  // namespace repair
