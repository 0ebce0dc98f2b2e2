// The questions that this program can be started with; each stands in the file of the checks that ask it.
#pragma once

#include "windows_check/probe.h"

namespace windows_check
{
int LibraryProbe(int count, wchar_t** arguments);     // restricted | free: which copy of a DLL loads at the first call
int ArgumentsProbe(int count, wchar_t** arguments);   // its own command line and current folder
int ExitProbe(int count, wchar_t** arguments);        // ends with the given code
int CrashProbe(int count, wchar_t** arguments);       // memory | throw: ends as the tool does when something breaks
int SleepProbe(int count, wchar_t** arguments);       // waits to be ended
int ActivationProbe(int count, wchar_t** arguments);  // a Windows Runtime class on a thread without an apartment
int FolderProbe(int count, wchar_t** arguments);      // the folder that the installer is unpacked into, and its rights

struct NamedProbe
{
    const wchar_t* name;
    Probe run;
};
inline constexpr NamedProbe kProbes[] = {
    {L"library", LibraryProbe}, {L"arguments", ArgumentsProbe},   {L"exit", ExitProbe},     {L"crash", CrashProbe},
    {L"sleep", SleepProbe},     {L"activation", ActivationProbe}, {L"folder", FolderProbe},
};
}  // namespace windows_check
