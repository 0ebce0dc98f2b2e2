// What a check is, and what it finds on this PC.
//
// A fact is a sentence about Windows that the product relies on, with what is expected; facts.toml lists them all. A
// check tests one fact and reports in the same words what it has seen. The same words are "ok", others "differs".
#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace windows_check
{
// One row of facts.toml; the build makes facts.cpp from it.
struct Fact
{
    const char* id;
    const char* group;
    const wchar_t* says;
    std::vector<std::wstring_view> expected;  // each of them is fine
    DWORD limitMs;                            // a check may take so long
};
const std::vector<Fact>& AllFacts();

// A text or a literal converts to it, so a check returns what it has seen.
struct Seen
{
    std::wstring text;
    std::wstring detail;  // more for the reader of the JSON; not compared

    Seen() = default;
    Seen(std::wstring seen, std::wstring more = {}) : text(std::move(seen)), detail(std::move(more)) {}
    Seen(const wchar_t* seen, std::wstring more = {}) : text(seen), detail(std::move(more)) {}
};

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
    bool isInteractive = false;     // a user could see a window
    std::wstring delayedLibraries;  // delay-loaded libraries that were loaded before any call into them
};

// Filled before the first check runs, constant from then on.
Pc& ThisPc();
}  // namespace windows_check
