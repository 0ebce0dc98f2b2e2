// What the lab's programs of the desktop edition share: the record of their start and the behaviour that a machine
// gives them.
#pragma once
#include <windows.h>

#include <optional>
#include <string>

namespace programs
{
// Set by "hlcmd.exe exit": every application program that is not deaf ends.
inline constexpr const wchar_t* kExitEvent = L"TavikLabExit";

// File name of the running program, in the letters it was started with on disk.
std::wstring ImageName();

// Appends this start to C:\lab\programs.txt.
void RecordStart();

// The value of "<image>.<what>" in C:\lab\programs-behaviour.txt (image names compared without case).
std::optional<std::wstring> Behaviour(const std::wstring& what);
bool IsYes(const std::wstring& what);

// How long the program stays: "<image>.stay", INFINITE for "forever".
DWORD StayTime();
int ExitCode();
}  // namespace programs
