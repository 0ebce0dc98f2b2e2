// Watches one run: the orders, the instances of the program, what was seen of them, and the actions on them.
#pragma once
#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "watcher_windows.h"

namespace watcher
{
// lab/README.md has the tables of triggers and actions.
struct When
{
    std::wstring trigger;
    std::wstring action;
    bool done = false;
};

// What lab/session.py has written into C:\lab\watcher.json.
struct Orders
{
    std::wstring program, arguments, directory, report, pictures;
    std::vector<std::wstring> start;   // programs that run before the tool does
    std::vector<std::wstring> held;    // files that stay open, without sharing, for the whole run
    std::vector<std::wstring> shared;  // the same, but other programs may read, write and delete them meanwhile
    Json registry;                     // values below HKLM: key, name, type, data (bytes)
    std::vector<When> whens;
    unsigned crowd = 1;                // number of instances that start at the same moment
    std::optional<std::wstring> then;  // arguments of an undisturbed run after all others have ended
    DWORD timeoutMs = 0;
    DWORD holdMs = 0;
};

struct Instance
{
    std::wstring arguments;
    HANDLE process = nullptr;
    DWORD id = 0;
    DWORD started = 0, ended = 0;
    DWORD exitCode = 0;
    size_t peakMemory = 0;  // bytes of its working set
    bool running = true;
    StatusView status;
    DWORD statusSince = 0;
    bool pictured = false;
};

// A message box of an instance.
struct ShownBox : Box
{
    size_t instance = 0;
    DWORD since = 0, until = 0;
    bool statusHidden = false;  // the status window of the same instance, when the box came up
    bool dismissed = false;
};

struct Program
{
    std::wstring commandLine;
    HANDLE process;
};

// Times are milliseconds after the start of the first instance.
struct Watch
{
    explicit Watch(Orders given);

    // Returns the watcher's exit code, after the report is written.
    int Run();

    DWORD Now() const { return GetTickCount() - start; }
    HWND StatusWindow() const { return instances[0].status.window; }
    HWND FrontWindow() const;  // the last message box while it is up, otherwise the status window

    // Both end the watcher with a message if the program cannot be started. StartInstance returns the main thread.
    void StartProgram(const std::wstring& commandLine);
    HANDLE StartInstance(const std::wstring& arguments, DWORD flags = 0);

    Orders orders;
    HMODULE hook;
    DWORD start = 0;
    DWORD waitUntil = 0;
    std::vector<Instance> instances;
    std::vector<ShownBox> boxes;
    HANDLE event = nullptr;  // kept open, so that it can be asked when the program that made it has ended
    Json looked;             // what the last action saw

private:
    void StartCrowd();
    bool StartsAgain();
    bool AnyRuns(size_t from = 0) const;
    void Look();
    void LookAtStatus(size_t index);
    void LookAtBoxes(size_t index);
    void Act();
    void DismissBoxes();
    void EndAll();
    void TakePicture(const std::wstring& name);
    bool WriteReport() const;

    std::vector<Program> programs_;  // those that ran before the tool, and those that an action started
    Json samples_ = Json::array();   // of the status window, one for each change
    Json actions_ = Json::array();
    bool timedOut_ = false;
    int pictures_ = 0;
};

// Prints the reason and ends the watcher.
[[noreturn]] void Refuse(const std::wstring& reason);

Orders ReadOrders(const wchar_t* path);

// Wine renews its list of display devices when the first window appears and drops those it does not know, together
// with their driver keys. So that happens first, then the machine's own ones are written.
void SetUpDevices(const Json& registry);

// Both end the watcher with a message if the trigger or the action is unknown.
bool Fires(const Watch& watch, const std::wstring& trigger);
bool Perform(Watch& watch, const std::wstring& action);  // returns whether it worked
}  // namespace watcher
