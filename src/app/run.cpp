#include "app/run.h"

#include <windows.h>

#include "app/switches.h"
#include "base/log.h"
#include "ui/result_message.h"

namespace repair
{
void FinishRun(Run& run)
{
    if (run.instanceEvent)
    {
        SetEvent(run.instanceEvent.Get());
        run.instanceEvent.Close();
    }
    StopStatusWindow(run.window);
}

int ExitEarly(Run& run, const wchar_t* logLine, int message)
{
    WriteLog(logLine);
    if (!Silent)
    {
        ShowResultMessage(run.window, message);
    }
    FinishRun(run);
    return -1;
}
}  // namespace repair
