// Starting the tool and waiting for it, and which programs run.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "companion/recogniser.h"

namespace repair
{
inline constexpr wchar_t kTool[] = L"TavikCompatibilityTool.exe";

struct ToolStart
{
    std::wstring tool;  // path
    std::wstring mark;  // an argument that the tool ignores but logs in its first line
    std::vector<std::wstring> switches;
    int limitSeconds = 0;
    bool kill = false;  // at the limit; otherwise the tool goes on
};

struct ToolEnd
{
    DWORD startError = ERROR_SUCCESS;  // if not 0, the tool was not started
    bool isOver = false;               // ended by itself
    Finding finding;                   // by exit code and log
};

// Returns a mark that no other run has.
std::wstring MakeMark();

// Starts the tool and waits. Failures to read its log are written to standard error.
ToolEnd RunTool(const ToolStart& start);

// Returns the path of the log with this mark; none if there is none or it cannot be read.
std::optional<std::wstring> FindLog(const std::wstring& mark);

// Path of this program, and of the tool in the same folder.
std::wstring OurPath();
std::wstring ToolBesideUs();

// True if a process of the tool runs with administrator rights: one started from this path, or from another one with
// the tool's name. Without these rights it is another program of that name, or cannot do anything. One whose rights
// cannot be asked for counts.
bool IsToolRunning(const std::wstring& tool);

// True if a window program of the application runs in any session of a user.
bool IsApplicationRunning();

// Ends the window programs that a direct installation has started where no user sees them, in session 0.
void EndHiddenApplication();
}  // namespace repair
