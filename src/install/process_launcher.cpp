#include "install/process_launcher.h"

#include <windows.h>
#include <shellapi.h>

#include "base/handles.h"
#include "base/log.h"
#include "base/system_message.h"

namespace repair
{
std::int32_t LaunchProcess(const std::wstring& file, const std::wstring& parameters, DWORD timeoutMs,
                           const wchar_t* workingDirectory)
{
    SHELLEXECUTEINFOW start = {};
    static_assert(sizeof(start) == 112);
    start.cbSize = sizeof(start);
    // No zone question, no box of the shell, a finished start when the call returns, and a process handle.
    start.fMask = SEE_MASK_NOZONECHECKS | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOASYNC | SEE_MASK_NOCLOSEPROCESS;
    start.lpVerb = L"open";
    start.lpFile = file.c_str();
    start.lpParameters = parameters.c_str();
    start.lpDirectory = workingDirectory;
    start.nShow = SW_HIDE;
    if (ShellExecuteExW(&start) == FALSE)
    {
        const DWORD code = GetLastError();
        LogLine(L"Launching process %s %s failed. Error code = %d %s", file.c_str(), parameters.c_str(), code,
                FormatSystemMessage(code).c_str());
        return static_cast<std::int32_t>(code);
    }

    const ProcessHandle process(start.hProcess);
    WaitForSingleObject(process.Get(), timeoutMs);  // the exit code shows the result
    DWORD exitCode = 0;
    if (GetExitCodeProcess(process.Get(), &exitCode) == FALSE)
    {
        const DWORD code = GetLastError();
        LogLine(L"Unable to get exit code for process %s %s. Error code = %d %s", file.c_str(), parameters.c_str(),
                code, FormatSystemMessage(code).c_str());
        return static_cast<std::int32_t>(code);
    }
    LogLine(L"Process %s %s completed with exit code %d", file.c_str(), parameters.c_str(), exitCode);
    return static_cast<std::int32_t>(exitCode);
}
}  // namespace repair
