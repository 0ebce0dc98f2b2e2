// Questions that need a process of their own: this program starts itself again and reads what it prints.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

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

// Runs `program` (this one, or a copy of it) with "--probe NAME" and the rest of the command line after it.
Answer Ask(const std::wstring& program, const std::wstring& name, const std::wstring& rest = {},
           const std::wstring& currentFolder = {});

// The other side: what the started process does. Its return value is the exit code.
struct Probe
{
    const wchar_t* name;
    int (*run)(int count, wchar_t** arguments);
};
std::vector<Probe>& AllProbes();

struct ProbeRegistration
{
    explicit ProbeRegistration(const Probe& probe) { AllProbes().push_back(probe); }
};

// Begins a probe, in an unnamed namespace.
#define PROBE(name)                                                                      \
    int Probe_##name(int, wchar_t**);                                                    \
    const windows_check::ProbeRegistration registered_##name({L"" #name, Probe_##name}); \
    int Probe_##name([[maybe_unused]] int count, [[maybe_unused]] wchar_t** arguments)

// Prints one line of an answer.
void Tell(const std::wstring& name, const std::wstring& value);
}  // namespace windows_check
