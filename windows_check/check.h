// What a check is, and what it finds on this PC.
//
// A fact is a sentence about Windows that the product relies on, with what is expected; facts.toml lists them all. A
// check tests one fact and reports in the same words what it has seen. The same words are "ok", others "differs".
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace windows_check
{
struct Seen
{
    std::wstring text;
    std::wstring detail = {};  // more for the reader of the JSON; not compared
};

inline Seen Saw(std::wstring text, std::wstring detail = {})
{
    return {std::move(text), std::move(detail)};
}

// Thrown by a check that cannot test its fact on this PC.
struct NotApplicable
{
    std::wstring reason;
};

// Throws NotApplicable if the condition does not hold.
void Need(bool condition, const std::wstring& reason);

struct Check
{
    const char* id;
    Seen (*look)();  // may throw, crash and hang
};

// Every check of the program, in no particular order.
std::vector<Check>& AllChecks();

struct Registration
{
    Registration(const char* id, Seen (*look)()) { AllChecks().push_back({id, look}); }
};

// Begins a check, in an unnamed namespace; the id of its fact is "group.name".
#define FACT(group, name)                                                                                   \
    windows_check::Seen Look_##group##_##name();                                                            \
    const windows_check::Registration registered_##group##_##name(#group "." #name, Look_##group##_##name); \
    windows_check::Seen Look_##group##_##name()

// A check of one expression.
#define SHORT_FACT(group, name, ...) \
    FACT(group, name)                \
    {                                \
        return __VA_ARGS__;          \
    }

// The PC, and what the program has made on it for itself.
struct Pc
{
    std::wstring program;       // full path of this program
    std::wstring folder;        // temporary folder of this run, without a trailing backslash
    bool isFolderOurs = false;  // only this account, administrators and the system can write into it
    std::wstring key;           // volatile key of this run, below HKEY_CURRENT_USER
    std::wstring version;       // 10.0.22631
    std::string wine;           // empty on Windows
    DWORD session = 0;
    bool isElevated = false;
    bool isInteractive = false;              // a user could see a window
    std::vector<std::wstring> modulesFirst;  // full paths of the DLLs at the first statement of main ...
    std::vector<std::wstring> modulesThen;   // ... and after the search for DLLs was restricted
};

// Filled before the first check runs, constant from then on.
Pc& ThisPc();

// Full paths of the DLLs in this process, without the program itself, in the order in which they were loaded.
std::vector<std::wstring> LoadedModules();
}  // namespace windows_check
