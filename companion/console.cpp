#include "companion/console.h"

#include <algorithm>
#include <string>

#include <windows.h>

#include "base/system_message.h"
#include "companion/failure.h"

namespace repair
{
namespace
{
constexpr size_t kMostAtOnce = 16'384;  // a console takes less than 64 KB in one call

// Returns how many bytes to write next. Never splits a character, because a console would show both parts as unknown
// characters. A character has at most four bytes.
size_t FirstPart(std::string_view bytes)
{
    size_t size = std::min(bytes.size(), kMostAtOnce);
    for (int i = 0; i < 3 && size < bytes.size() && (static_cast<unsigned char>(bytes[size]) & 0xC0) == 0x80; ++i)
    {
        --size;
    }
    return size;
}

// Returns false if writing fails; the reason is the last error.
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

bool HasOwnConsole()
{
    DWORD processes[2] = {};
    DWORD mode = 0;
    return GetConsoleProcessList(processes, 2) == 1 && GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

void WaitForKey()
{
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    FlushConsoleInputBuffer(input);  // keys that were pressed before the question
    WriteOutput("\nPress a key to close this window.\n");
    INPUT_RECORD event = {};
    DWORD count = 0;
    while (ReadConsoleInputW(input, &event, 1, &count) != 0)
    {
        if (event.EventType == KEY_EVENT && event.Event.KeyEvent.bKeyDown != 0)
        {
            break;
        }
    }
}

void WriteOutput(std::string_view utf8)
{
    if (!Write(STD_OUTPUT_HANDLE, utf8))
    {
        throw Failure(SystemFailure("the output cannot be written", GetLastError()));
    }
}

void WriteError(std::string_view message)
{
    Write(STD_ERROR_HANDLE, "TavikToolCompanion: " + std::string(message) + "\n");
}
}  // namespace repair
