// Questions that need a process of their own: this program starts itself again and reads what it prints.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "base/handles.h"
#include "windows_check/check.h"

namespace windows_check
{
struct Answer
{
    std::wstring end;                            // "exit code 0x00000000", or why there is none
    std::map<std::wstring, std::wstring> lines;  // what Tell printed, by name

    // The value, or a text that says that there is none.
    std::wstring operator[](const std::wstring& name) const;
};

// Runs `program` (this one, or a copy of it) with "--probe NAME ARGUMENT" and waits for its end.
Answer Ask(const std::wstring& nameAndArgument, const std::wstring& program = ThisPc().program,
           const wchar_t* currentFolder = nullptr);

// Starts it without a window and returns at once; no handle if that fails. The output may be null.
repair::ProcessHandle StartProbe(const std::wstring& program, const std::wstring& nameAndArgument, HANDLE output,
                                 const wchar_t* currentFolder);

// Runs in the started process. The return value is its exit code.
struct Probe
{
    const wchar_t* name;
    int (*run)(const std::wstring& argument);
};
std::vector<Probe>& AllProbes();

struct ProbeRegistration
{
    explicit ProbeRegistration(const Probe& probe) { AllProbes().push_back(probe); }
};

// Begins a probe, in an unnamed namespace.
#define PROBE(name)                                                                      \
    int Probe_##name(const std::wstring&);                                               \
    const windows_check::ProbeRegistration registered_##name({L"" #name, Probe_##name}); \
    int Probe_##name([[maybe_unused]] const std::wstring& argument)

// Prints one line of an answer.
void Tell(const std::wstring& name, const std::wstring& value);
}  // namespace windows_check
