// Standard output and standard error, always in UTF-8.
#pragma once

#include <string_view>

namespace repair
{
// Switches a console to UTF-8, and back when it is destroyed.
class Utf8Console
{
public:
    Utf8Console();
    Utf8Console(const Utf8Console&) = delete;
    Utf8Console& operator=(const Utf8Console&) = delete;
    Utf8Console(Utf8Console&&) = delete;
    Utf8Console& operator=(Utf8Console&&) = delete;
    ~Utf8Console();

private:
    unsigned int before_;  // code page; 0 without a console
};

// True if no other program shares the console, so that its window closes when this program ends: it was started by a
// double-click, or a file was dropped on it.
bool HasOwnConsole();

// Asks for a key and waits for it.
void WaitForKey();

// Writes the bytes unchanged. Throws Failure if that fails.
void WriteOutput(std::string_view utf8);

// Writes one line to standard error: the program's name and the message. Never fails.
void WriteError(std::string_view message);
}  // namespace repair
