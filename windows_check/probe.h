// Questions that need a process of their own: this program starts itself once more and reads what it prints.
#pragma once

#include <windows.h>

#include <map>
#include <string>

namespace windows_check
{
struct Answer
{
    bool hasStarted = false;
    bool hasEnded = false;  // within the limit; otherwise the process was ended
    DWORD exitCode = 0;
    std::map<std::wstring, std::wstring> lines;  // "name=value", by name

    // The value, or a text that says that there is none.
    std::wstring operator[](const std::wstring& name) const;
};

// Runs `program` (this one, or a copy of it) with "--probe NAME" and the rest of the command line behind it.
Answer Ask(const std::wstring& program, const std::wstring& name, const std::wstring& rest = {},
           const std::wstring& currentFolder = {});

// The other side: what the started process does. Null when there is no probe of that name.
using Probe = int (*)(int count, wchar_t** arguments);
Probe FindProbe(const std::wstring& name);

// Prints one line of an answer.
void Tell(const std::wstring& name, const std::wstring& value);
}  // namespace windows_check
