// Process entry.
#include <cstdlib>
#include <exception>

#include <windows.h>
#include <delayimp.h>

#include "app/compatibility_check.h"
#include "app/direct_install.h"
#include "app/redirection_guard.h"
#include "app/switches.h"
#include "base/files.h"
#include "base/log.h"
#include "base/standard_output.h"

namespace
{
constexpr int kInstallerFileMissing = 2;
constexpr UINT kUncaught = 3;  // the exit code of a C runtime's abort

// The tool runs unattended, so an uncaught exception must not wait in a system box. Log lines are written at once.
[[noreturn]] void EndQuietly()
{
    TerminateProcess(GetCurrentProcess(), kUncaught);
    std::abort();  // not reached
}

LONG WINAPI EndQuietlyOnSystemException(EXCEPTION_POINTERS*)
{
    EndQuietly();
}

// A delay-loaded library or function is missing. Without this, the helper raises an exception through stubs that the
// system cannot unwind, so no handler of ours is sure to be reached.
FARPROC WINAPI EndQuietlyWithoutFunction(unsigned, PDelayLoadInfo)
{
    EndQuietly();
}

int RunTool()
{
    using namespace repair;
    ReadCommandLine();
    if (VltMode && InstallMode)
    {
        if (FileExists(InstallerPath))  // not a folder: the shell opens it and the wait never ends
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

#if defined(__GLIBCXX__)
// The library's handler until wWinMain sets ours. The original prints the exception's type; decoding that name takes
// 46 KB of the exe.
namespace __gnu_cxx
{
void __verbose_terminate_handler()
{
    EndQuietly();
}
}  // namespace __gnu_cxx
#endif

// Called by the compiler's delay-load helper.
decltype(__pfnDliFailureHook2) __pfnDliFailureHook2 = EndQuietlyWithoutFunction;

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, wchar_t*, int)
{
    // Before any delay-loaded library, so that none is loaded from the folder of the tool.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    SetThreadErrorMode(SEM_FAILCRITICALERRORS, nullptr);  // an empty drive is an error code, not a box of the system
    std::set_terminate(EndQuietly);
    SetUnhandledExceptionFilter(EndQuietlyOnSystemException);
    repair::GuardAgainstRedirection();

    repair::AppInstance = instance;
    return RunTool();
}
