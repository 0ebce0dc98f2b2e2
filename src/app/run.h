// What one run of the check holds from its first step to its end.
#pragma once

#include <windows.h>

#include "base/handles.h"
#include "ui/status_window.h"

namespace repair
{
struct Run
{
    StatusWindow window;
    EventHandle instanceEvent;  // its existence keeps other instances out; null when it could not be had
};

// Signals and closes the instance event, ends the status window.
void FinishRun(Run& run);

// Leaves before anything was changed: logs the line, shows the result message unless silent, finishes the run. Returns
// the exit code of all early exits, -1.
int ExitEarly(Run& run, const wchar_t* logLine, int message);
}  // namespace repair
