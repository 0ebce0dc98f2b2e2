// Process entry.
#include <cstdlib>
#include <exception>

#include <windows.h>

#include "app/compatibility_check.h"
#include "app/direct_install.h"
#include "app/switches.h"
#include "base/files.h"
#include "base/log.h"
#include "base/standard_output.h"

namespace
{
constexpr int kInstallerFileMissing = 2;
constexpr UINT kUncaught = 3;  // what a C runtime's abort gives as well

// Runs unattended: what nobody caught must not wait for somebody to close a box. The log is complete as far as it goes.
[[noreturn]] void EndQuietly()
{
    TerminateProcess(GetCurrentProcess(), kUncaught);
    std::abort();  // not reached
}

LONG WINAPI EndQuietlyOnSystemException(EXCEPTION_POINTERS*)
{
    EndQuietly();
}

int Run()
{
    using namespace repair;
    ReadCommandLine();
    if (VltMode && InstallMode)
    {
        if (FileExists(InstallerPath))  // a folder would be opened in a window and waited for without end
        {
            return RunDirectInstall(InstallerPath);
        }
        LogLine(L"Unable to find file at : %s.", InstallerPath.c_str());
        WriteStandardOutput(L"The given location does not contain the file : " + InstallerPath);
        return kInstallerFileMissing;
    }
    return RunCompatibilityCheck();
}
}  // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, wchar_t*, int)
{
    // First of all, before any delay-loaded library: nothing comes from the folder that the tool was started in.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    std::set_terminate(EndQuietly);
    SetUnhandledExceptionFilter(EndQuietlyOnSystemException);

    repair::AppInstance = instance;
    return Run();
}
