#include "app/switches.h"

#include <cwchar>

#include <windows.h>
#include <shellapi.h>

#include "base/handles.h"
#include "base/log.h"

namespace repair
{
namespace
{
struct Switch
{
    const wchar_t* name;
    bool* flag;
};

constexpr Switch kSwitches[] = {
    {L"-FORCE", &Force},   {L"-FORCEVLTUWP", &Force}, {L"-FORCEVLTUWP", &ForceUwp},
    {L"-SILENT", &Silent}, {L"-VLT", &VltMode},       {L"-Install", &InstallMode},
};
}  // namespace

void ReadCommandLine()
{
    const wchar_t* const commandLine = GetCommandLineW();
    int count = 0;
    const LocalMemory owner(CommandLineToArgvW(commandLine, &count));
    wchar_t* const* const arguments = static_cast<wchar_t**>(owner.Get());
    for (int i = 1; owner && i < count; ++i)
    {
        for (const Switch& known : kSwitches)
        {
            *known.flag |= _wcsicmp(arguments[i], known.name) == 0;
        }
        if (_wcsicmp(arguments[i], L"-Path") == 0)
        {
            // The next argument is the path, even if it looks like a switch; the path is empty without one.
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
