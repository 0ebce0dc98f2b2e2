#include "app/switches.h"

#include <cwchar>

#include <windows.h>
#include <shellapi.h>

#include "base/handles.h"
#include "base/log.h"

namespace repair
{
void ReadCommandLine()
{
    const wchar_t* const commandLine = GetCommandLineW();
    int count = 0;
    const LocalMemory owner(CommandLineToArgvW(commandLine, &count));
    wchar_t* const* const arguments = static_cast<wchar_t**>(owner.Get());
    for (int i = 1; owner && i < count; ++i)
    {
        const auto is = [&](const wchar_t* name) { return _wcsicmp(arguments[i], name) == 0; };
        if (is(L"-FORCE"))
        {
            Force = true;
        }
        else if (is(L"-FORCEVLTUWP"))
        {
            Force = true;
            ForceUwp = true;
        }
        else if (is(L"-SILENT"))
        {
            Silent = true;
        }
        else if (is(L"-VLT"))
        {
            VltMode = true;
        }
        else if (is(L"-Install"))
        {
            InstallMode = true;
        }
        else if (is(L"-Path"))
        {
            // Whatever follows is the path, even if it looks like a switch; at the end of the line it is empty.
            ++i;
            InstallerPath = i < count ? arguments[i] : L"";
        }
    }
    if (owner && count >= 1)
    {
        LogLine(L"Launched with command line: %s", commandLine);
    }
}
}  // namespace repair
