// What can be seen of a watched program from outside: its status window and its message boxes.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace watcher
{
using Json = nlohmann::ordered_json;

struct StatusView
{
    HWND window = nullptr;
    bool visible = false;
    bool minimised = false;
    std::wstring line;
    Json seen;  // everything, for the report
};

struct Box
{
    HWND window = nullptr;
    bool asked = false;  // the icons are known
    Json seen;
};

// The status window of a process: window is null when there is none.
StatusView FindStatusWindow(DWORD process);

std::vector<HWND> FindBoxes(DWORD process);

// Asks inside the process for the icons. asked stays false when it does not answer in time.
void Describe(Box& box, HMODULE hook);

// Everything about a window and its controls; null if it does not answer in time.
Json LookAt(HWND window, HMODULE hook);

HWND FindControl(HWND window, int id);
}  // namespace watcher
