// What the watcher is told to do, and the part of the machine that can only be set up while Wine runs.
#pragma once
#include <optional>
#include <string>
#include <vector>

namespace watcher
{
struct When
{
    std::wstring trigger;
    std::wstring action;
    bool done = false;
};

struct Orders
{
    std::wstring program, arguments, directory, report, pictures;
    std::vector<std::wstring> start;     // programs that run before the tool does
    std::vector<std::wstring> held;      // files that stay open, without sharing, for the whole run
    std::vector<std::wstring> shared;    // the same, but other programs may read, write and delete them meanwhile
    std::vector<std::wstring> registry;  // <key below HKLM> TAB <value> TAB <type> TAB <hexadecimal bytes>
    std::vector<When> whens;             // <trigger> : <action>
    unsigned long crowd = 1;             // number of instances that start at the same moment
    std::optional<std::wstring> then;    // arguments of an undisturbed run after all others have ended
    unsigned long timeoutMs = 60000;
    unsigned long holdMs = 0;
    bool showOwnAdapter = false;
};

// Prints the reason and ends the watcher.
[[noreturn]] void Refuse(const std::wstring& reason);

// Refuses a line that is not understood.
Orders ReadOrders(const wchar_t* path);

// Wine renews its list of display devices when the first window appears and drops those it does not know, together
// with their driver keys. So that happens first, then the machine's own ones are written.
void SetUpDevices(const Orders& orders);

// Whether any log of the tool contains the text.
bool LogContains(const std::wstring& text);

// From now on no program may set a value in this key below HKLM; the keys below it can still be made and read.
bool DenyKey(const std::wstring& path);
}  // namespace watcher
