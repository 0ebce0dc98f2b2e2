// What a check is, and what it finds on this machine.
//
// A fact is a sentence about Windows that the product relies on, with what is expected; facts.toml has them all. A
// check looks at the machine and says in the same words what it has seen. Equal words are "ok", others "differs".
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace windows_check
{
// What a check has seen, or why it could not look.
struct Seen
{
    std::wstring text;
    std::wstring detail;  // more for the reader of the JSON; not compared
    bool applies = true;
};

inline Seen Saw(std::wstring text, std::wstring detail = {})
{
    return {std::move(text), std::move(detail), true};
}
inline Seen DoesNotApply(std::wstring reason)
{
    return {std::move(reason), {}, false};
}

// The machine and what the program has made on it for itself.
struct Machine
{
    std::wstring program;       // full path of this program
    std::wstring folder;        // temporary folder of this run, without a trailing backslash
    bool isFolderOurs = false;  // nobody but this account, administrators and the system can write into it
    std::wstring key;           // volatile key of this run, below HKEY_CURRENT_USER
    std::wstring version;       // 10.0.22631
    std::string wine;           // empty on Windows
    DWORD session = 0;
    bool isElevated = false;
    bool isInteractive = false;              // somebody could see a window
    std::vector<std::wstring> modulesFirst;  // full paths of the DLLs at the first statement of main ...
    std::vector<std::wstring> modulesThen;   // ... and after the search for DLLs was restricted
};

// Filled before the first check runs, constant from then on.
Machine& ThisMachine();

struct Check
{
    const char* id;
    Seen (*look)();  // may throw, crash and hang
    DWORD limitMs = 20'000;
};

// One function for each file of checks.
std::vector<Check> LibraryChecks();
std::vector<Check> ProcessChecks();
std::vector<Check> EventChecks();
std::vector<Check> RegistryChecks();
std::vector<Check> MessageChecks();
std::vector<Check> TextChecks();
std::vector<Check> ReadingChecks();
std::vector<Check> FolderChecks();
std::vector<Check> RemovalChecks();
std::vector<Check> SharingChecks();
std::vector<Check> SecurityChecks();
std::vector<Check> DeviceChecks();
std::vector<Check> InfChecks();
std::vector<Check> InstallerChecks();
std::vector<Check> InternetChecks();
std::vector<Check> DownloadChecks();
std::vector<Check> RuntimeChecks();
std::vector<Check> StoreChecks();
std::vector<Check> WindowChecks();
}  // namespace windows_check
