#include <windows.h>

#include <shellapi.h>

#include <ostream>

#include "app/switches.h"
#include "support/log_capture.h"
#include "support/test.h"

IMPORTED(GetCommandLineW, CommandLineToArgvW, LocalFree)

namespace repair
{
namespace
{
struct Line
{
    std::wstring arguments;
    std::string flags;  // F force, U force Store, S silent, V and I of the direct install
    std::wstring path;
};

std::string Flags()
{
    std::string flags;
    flags += Force ? "F" : "";
    flags += ForceUwp ? "U" : "";
    flags += Silent ? "S" : "";
    flags += VltMode ? "V" : "";
    flags += InstallMode ? "I" : "";
    return flags;
}

class Switches : public testing::Test
{
protected:
    // Reads the command line; returns the lines that are logged.
    std::vector<std::wstring> LogOf(const std::wstring& commandLine)
    {
        line_ = commandLine;
        LogCapture log;
        ReadCommandLine();
        return log.Lines();
    }

private:
    std::wstring line_;
    SUBSTITUTE(GetCommandLineW)
    commandLine_{[this] { return line_.data(); }};
};

const Line kLines[] = {
    {L"", "", L""},
    {L"-FORCE", "F", L""},
    {L"-FORCEVLTUWP", "FU", L""},
    {L"-SILENT", "S", L""},
    {L"-VLT", "V", L""},
    {L"-Install", "I", L""},
    {L"-Path C:\\a.exe", "", L"C:\\a.exe"},
    {L"-force", "F", L""},
    {L"-ForceVltUwp", "FU", L""},
    {L"-silent", "S", L""},
    {L"-vlt -install -path c:\\x", "VI", L"c:\\x"},
    {L"-INSTALL -PATH X", "I", L"X"},
    {L"-VLT -Install -Path \"C:\\My Files\\a b.exe\" -SILENT", "SVI", L"C:\\My Files\\a b.exe"},
    {L"-FORCE -FORCEVLTUWP -SILENT -VLT -Install", "FUSVI", L""},
    {L"-SILENT -SILENT -FORCE -FORCE", "FS", L""},  // more than once
    {L"-Path -SILENT", "", L"-SILENT"},             // what follows is the path, whatever it looks like
    {L"-Path -Path -SILENT", "S", L"-Path"},
    {L"-Path one -Path two", "", L"two"},
    {L"-SILENT -Path", "S", L""},  // nothing follows
    {L"-Path one -Path", "", L""},
    {L"-Path \"\"", "", L""},
    {L"-unknown /FORCE FORCE --FORCE -FORCED -FORC -Pat x", "", L""},
    {L"\"-FORCE\" \"-SI\"LENT", "FS", L""},  // quotes are the shell's, not part of the switch
    {L"\" -FORCE\"", "", L""},
};

// Own process: the switches are set once in a process.
// Proves: `-FORCE`, `-FORCEVLTUWP`, `-SILENT`, `-VLT`, `-Install`, `-Path FILE` => each sets its switch, `-FORCEVLTUWP` also the one of `-FORCE`; `-Path` takes the next argument
// Proves: Switches in other letter case, in any order, more than once => the same
// Proves: Unknown arguments, and such that only look like a switch => count for nothing
// Proves: What follows `-Path` looks like a switch => it is the path, and sets nothing
// Proves: `-Path` is the last argument => the path is empty
// Proves: There is at least one argument => the whole command line, as it was given, is the first line of the log
// Proves: Before the command line is read => all switches are off, the path is empty
TEST_F(Switches, AreReadFromTheCommandLineWhichIsLoggedWhole)
{
    for (const Line& expected : kLines)
    {
        EXPECT_EQ(Flags(), "");
        EXPECT_EQ(InstallerPath, L"");
        EXPECT_EQ(AppInstance, nullptr);
        const std::wstring line = L"\"C:\\Tavik\\tool.exe\"  " + expected.arguments;
        SCOPED_TRACE(PrintToString(line));
        EXPECT_THAT(LogOf(line), ElementsAre(L"Launched with command line: " + line));
        EXPECT_EQ(Flags(), expected.flags);
        EXPECT_EQ(InstallerPath, expected.path);
        Force = ForceUwp = Silent = VltMode = InstallMode = false;
        InstallerPath.clear();
    }
}

// Proves: The program's own name looks like a switch => it sets nothing
TEST_F(Switches, NameOfTheProgramIsNoSwitch)
{
    LogOf(L"-SILENT -FORCE");
    EXPECT_EQ(Flags(), "F");
}

// Proves: The command line is very long => it is cut in the log, all switches count
TEST_F(Switches, LongLineIsCutInTheLog)
{
    EXPECT_THAT(LogOf(L"tool.exe " + std::wstring(2000, L'x') + L" -SILENT"),
                ElementsAre(L"Launched with command line: tool.exe " + std::wstring(1023 - 37, L'x')));
    EXPECT_EQ(Flags(), "S");
}

// Proves: The command line cannot be split, or has no argument at all => nothing is set, nothing is logged
TEST_F(Switches, LineWithoutArgumentsSetsNothingAndIsNotLogged)
{
    {
        SUBSTITUTE(CommandLineToArgvW) split([](const wchar_t*, int*) { return FailWith<wchar_t**>(8, nullptr); });
        EXPECT_THAT(LogOf(L"tool.exe -SILENT"), IsEmpty());
    }
    SUBSTITUTE(CommandLineToArgvW)
    split([](const wchar_t*, int* count) {
        *count = 0;
        return static_cast<wchar_t**>(LocalAlloc(LPTR, sizeof(wchar_t*)));
    });
    EXPECT_THAT(LogOf(L"tool.exe -SILENT"), IsEmpty());
    EXPECT_EQ(Flags(), "");
}

// Proves: The split command line is no longer needed => its memory is freed
TEST_F(Switches, MemoryOfTheSplitLineIsGivenBack)
{
    void* split = nullptr;
    int freed = 0;
    SUBSTITUTE(CommandLineToArgvW)
    splitLine([&](const wchar_t* line, int* count) {
        wchar_t** const arguments = splitLine.Original()(line, count);
        split = arguments;
        return arguments;
    });
    SUBSTITUTE(LocalFree)
    release([&](void* memory) {
        freed += memory == split ? 1 : 0;
        return release.Original()(memory);
    });
    LogOf(L"tool.exe -SILENT");
    EXPECT_EQ(freed, 1);
}
}  // namespace
}  // namespace repair
