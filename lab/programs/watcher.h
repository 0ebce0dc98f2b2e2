// The watch over one run: the instances of the program, what was seen of them, and what is done to them meanwhile.
#pragma once
#include <windows.h>

#include <string>

#include "watcher_report.h"
#include "watcher_setup.h"

namespace watcher
{
struct Watch
{
    explicit Watch(Orders given);

    // Returns the watcher's exit code, after the report is written.
    int Run();

    DWORD Now() const { return GetTickCount() - start; }
    HWND StatusWindow() const { return seen.instances[0].status.window; }
    HWND FrontWindow() const;  // the last message box while it is up, otherwise the status window

    // Both end the watcher with a message if the program cannot be started. StartInstance returns the main thread.
    void StartProgram(const std::wstring& commandLine);
    HANDLE StartInstance(const std::wstring& arguments, DWORD flags = 0);

    Orders orders;
    HMODULE hook;
    DWORD start = 0;
    DWORD waitUntil = 0;
    Seen seen;
    Json looked;  // what the last action saw

private:
    void StartCrowd();
    bool StartsAgain();
    bool AnyRuns(size_t from = 0) const;
    void Look();
    void LookAtStatus(Instance& instance, int index);
    void LookAtBoxes(const Instance& instance, int index);
    void Act();
    void DismissBoxes();
    void EndAll();
    void TakePicture(const std::wstring& name);

    int pictures_ = 0;
};
}  // namespace watcher
