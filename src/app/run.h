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
    EventHandle instanceEvent;  // keeps other instances out while it exists; null if it could not be created
};

// Signals and closes the instance event, then ends the status window.
void FinishRun(Run& run);

// Ends a run that has changed nothing: logs the line, shows the result message unless silent, finishes the run. Returns
// -1, the exit code of all early exits.
int ExitEarly(Run& run, const wchar_t* logLine, int message);
}  // namespace repair
