#include <windows.h>

#include <sddl.h>

#include <cwchar>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

#include "watcher.h"

namespace watcher
{
namespace
{
using Text = std::wstring;

DWORD Number(const Text& text)
{
    return std::wcstoul(text.c_str(), nullptr, 0);
}

bool ReadPair(const Text& text, int& x, int& y)
{
    return std::swscanf(text.c_str(), L"%d,%d", &x, &y) == 2;
}

// Keys and clicks go through the system's own input queue, as a user's do.
bool Send(INPUT input)
{
    return SendInput(1, &input, sizeof input) == 1;
}

bool SendMouse(DWORD flags)
{
    INPUT input{};
    input.type = INPUT_MOUSE;
    input.mi.dwFlags = flags;
    return Send(input);
}

bool PressKey(const Text& name)
{
    const std::map<Text, WORD> keys = {
        {L"return", VK_RETURN}, {L"escape", VK_ESCAPE}, {L"space", VK_SPACE}, {L"tab", VK_TAB}};
    const auto known = keys.find(name);
    INPUT input{};
    input.type = INPUT_KEYBOARD;
    input.ki.wVk = known != keys.end() ? known->second : static_cast<WORD>(Number(name));
    const bool isDown = input.ki.wVk != 0 && Send(input);
    input.ki.dwFlags = KEYEVENTF_KEYUP;
    return isDown && Send(input);
}

// where: a control id, or "x,y" from the window's corner.
bool Click(HWND window, const Text& where)
{
    RECT place{};
    int x = 0;
    int y = 0;
    if (ReadPair(where, x, y))
    {
        GetWindowRect(window, &place);
        x += place.left;
        y += place.top;
    }
    else
    {
        const HWND control = FindControl(window, static_cast<int>(Number(where)));
        if (control == nullptr)
        {
            return false;
        }
        GetWindowRect(control, &place);
        x = (place.left + place.right) / 2;
        y = (place.top + place.bottom) / 2;
    }
    return SetCursorPos(x, y) != 0 && SendMouse(MOUSEEVENTF_LEFTDOWN) && SendMouse(MOUSEEVENTF_LEFTUP);
}

// Whether a window of the thread follows the pointer. Gives up after a while: not every window can be moved.
void AwaitMoving(DWORD thread, bool isMoving)
{
    constexpr DWORD kLimitMs = 1500;
    constexpr DWORD kPauseMs = 10;
    for (DWORD waited = 0; waited < kLimitMs; waited += kPauseMs)
    {
        GUITHREADINFO info{};
        info.cbSize = sizeof info;
        if (GetGUIThreadInfo(thread, &info) != 0 && ((info.flags & GUI_INMOVESIZE) != 0) == isMoving)
        {
            return;
        }
        Sleep(kPauseMs);
    }
}

// distance: "dx,dy", from the middle of the window.
bool Drag(HWND window, const Text& distance)
{
    int dx = 0;
    int dy = 0;
    RECT place{};
    if (!ReadPair(distance, dx, dy) || GetWindowRect(window, &place) == 0)
    {
        return false;
    }
    const int x = (place.left + place.right) / 2;
    const int y = (place.top + place.bottom) / 2;
    const DWORD thread = GetWindowThreadProcessId(window, nullptr);
    SetCursorPos(x, y);
    const bool isDown = SendMouse(MOUSEEVENTF_LEFTDOWN);
    AwaitMoving(thread, true);  // the window must follow the pointer before it moves
    for (int step = 1; step <= 4; ++step)
    {
        SetCursorPos(x + dx * step / 4, y + dy * step / 4);
        Sleep(30);
    }
    const bool isUp = SendMouse(MOUSEEVENTF_LEFTUP);
    AwaitMoving(thread, false);  // the next action starts from the window's new place
    return isDown && isUp;
}

// The window's thread continues at an address without code. It is asked more than once: on Wine 10 a thread that just
// comes back from the system sometimes goes on as before.
bool CrashThreadOf(HWND window)
{
    constexpr DWORD kAccess = THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_SET_CONTEXT | SYNCHRONIZE;
    const HANDLE thread = OpenThread(kAccess, FALSE, GetWindowThreadProcessId(window, nullptr));
    if (thread == nullptr)
    {
        return false;
    }
    bool hasEnded = false;
    for (int attempt = 0; attempt < 20 && !hasEnded; ++attempt)
    {
        CONTEXT context{};
        context.ContextFlags = CONTEXT_CONTROL;
        SuspendThread(thread);
        if (GetThreadContext(thread, &context) != 0)
        {
            context.Rip = 8;
            SetThreadContext(thread, &context);
        }
        ResumeThread(thread);
        PostMessageW(window, WM_NULL, 0, 0);  // it may wait for a message
        hasEnded = WaitForSingleObject(thread, 200) == WAIT_OBJECT_0;
    }
    CloseHandle(thread);
    return hasEnded;
}

bool Move(const Text& from, const Text& to)
{
    return MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
}

// Whether another program could change the file now. It stays as it is.
bool CanWrite(const Text& path)
{
    const DWORD shared = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, shared, nullptr, OPEN_EXISTING, 0, nullptr);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) != 0;
}

// From now on no program may set a value in this key below HKLM; the keys below it can still be made and read.
bool DenyKey(const Text& path)
{
    HKEY key = nullptr;
    PSECURITY_DESCRIPTOR rights = nullptr;
    const bool isDenied = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, WRITE_DAC, &key) == ERROR_SUCCESS &&
                          ConvertStringSecurityDescriptorToSecurityDescriptorW(
                              L"D:(D;;0x2;;;WD)(A;;GA;;;WD)", SDDL_REVISION_1, &rights, nullptr) != 0 &&
                          RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, rights) == ERROR_SUCCESS;
    LocalFree(rights);
    RegCloseKey(key);
    return isDenied;
}

bool LogContains(const Text& text)
{
    const std::string_view wanted(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
    std::error_code noFolder;
    for (const auto& entry : std::filesystem::directory_iterator(L"C:\\Program Files\\Tavik\\MIM\\Log", noFolder))
    {
        std::ostringstream log;
        log << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        if (log.str().find(wanted) != std::string::npos)
        {
            return true;
        }
    }
    return false;
}

bool StartSecond(Watch& watch, const Text& arguments)
{
    return CloseHandle(watch.StartInstance(arguments)) != 0;
}

bool StartProgram(Watch& watch, const Text& commandLine)
{
    watch.StartProgram(commandLine);
    return true;
}

bool Wait(Watch& watch, const Text& milliseconds)
{
    watch.waitUntil = watch.Now() + Number(milliseconds);
    return true;
}

bool Kill(Watch& watch, const Text& code)
{
    return TerminateProcess(watch.instances[0].process, Number(code)) != 0;
}

bool KeepEvent(Watch& watch, const Text& name)
{
    watch.event = OpenEventW(SYNCHRONIZE, FALSE, name.c_str());
    return watch.event != nullptr;
}

bool LookAtFront(Watch& watch, const Text&)
{
    watch.looked = LookAt(watch.FrontWindow(), watch.hook);
    return !watch.looked.is_null();
}

const std::map<Text, bool (*)(Watch&, const Text&)> kActions = {
    {L"second", StartSecond},
    {L"run", StartProgram},
    {L"wait", Wait},
    {L"kill", Kill},
    {L"watch", KeepEvent},
    {L"look", LookAtFront},
    {L"crash", [](Watch& watch, const Text&) { return CrashThreadOf(watch.StatusWindow()); }},
    {L"key", [](Watch&, const Text& name) { return PressKey(name); }},
    {L"click", [](Watch& watch, const Text& where) { return Click(watch.FrontWindow(), where); }},
    {L"drag", [](Watch& watch, const Text& distance) { return Drag(watch.FrontWindow(), distance); }},
    {L"restore", [](Watch& watch, const Text&) { return ShowWindow(watch.StatusWindow(), SW_RESTORE) != 0; }},
    {L"close",
     [](Watch& watch, const Text&) { return PostMessageW(watch.FrontWindow(), WM_SYSCOMMAND, SC_CLOSE, 0) != 0; }},
    {L"deny", [](Watch&, const Text& key) { return DenyKey(key); }},
    {L"delete", [](Watch&, const Text& path) { return DeleteFileW(path.c_str()) != 0; }},
    {L"rename", [](Watch&, const Text& path) { return Move(path, path + L".renamed"); }},
    {L"replace", [](Watch&, const Text& path) { return Move(path + L".new", path); }},
    {L"write", [](Watch&, const Text& path) { return CanWrite(path); }},
};

const std::map<Text, bool (*)(const Watch&, const Text&)> kTriggers = {
    {L"start", [](const Watch&, const Text&) { return true; }},
    {L"window", [](const Watch& watch, const Text&) { return watch.instances[0].status.visible; }},
    {L"box", [](const Watch& watch, const Text&) { return !watch.boxes.empty() && watch.boxes[0].asked; }},
    {L"text",
     [](const Watch& watch, const Text& text) { return watch.instances[0].status.line.find(text) != Text::npos; }},
    {L"log", [](const Watch&, const Text& text) { return LogContains(text); }},
    {L"file",
     [](const Watch&, const Text& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }},
};

// "<word> <rest>", looked up by its word.
template <class Table, class Subject>
bool LookUp(const Table& table, Subject& watch, const Text& kind, const Text& order)
{
    const size_t blank = order.find(L' ');
    const auto found = table.find(order.substr(0, blank));
    if (found == table.end())
    {
        Refuse(L"unknown " + kind + L": " + order);
    }
    return found->second(watch, blank == Text::npos ? Text() : order.substr(blank + 1));
}
}  // namespace

bool Fires(const Watch& watch, const std::wstring& trigger)
{
    return !watch.instances.empty() && LookUp(kTriggers, watch, L"trigger", trigger);
}

bool Perform(Watch& watch, const std::wstring& action)
{
    return LookUp(kActions, watch, L"action", action);
}
}  // namespace watcher
