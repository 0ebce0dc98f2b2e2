// What can be seen of a watched program from outside: its status window and its message boxes.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace watcher
{
using Json = nlohmann::ordered_json;

inline constexpr int kStatusLine = 1004;
inline constexpr int kDots = 1005;
inline constexpr int kHeading = 1013;
inline constexpr int kMinimiseMark = 1014;

struct StatusView
{
    HWND window = nullptr;
    bool visible = false;
    bool minimised = false;
    RECT place{};
    std::wstring title, line, dots, heading, mark;

    bool SameAs(const StatusView& other) const;
};

struct Box
{
    HWND window = nullptr;
    int instance = 0;
    DWORD since = 0;  // milliseconds after the start
    DWORD until = 0;
    std::wstring caption, text, icon, titleIcon;
    std::vector<std::wstring> buttons;
    bool statusHidden = false;  // the status window of the same instance, when the box came up
    bool foreground = false;
    bool asked = false;  // the icons are known
    bool dismissed = false;
};

// The status window of a process: window is null when there is none.
StatusView FindStatusWindow(DWORD process);

std::vector<HWND> FindBoxes(DWORD process);

// All but the times and the instance.
void Describe(Box& box);

// Asks inside the process for the icons. False when it does not answer in time (it will be asked again).
bool AskIcons(Box& box, HMODULE hook);

// Everything about a window and its controls; null if it does not answer in time.
Json LookAt(HWND window, HMODULE hook);

HWND FindControl(HWND window, int id);
}  // namespace watcher
