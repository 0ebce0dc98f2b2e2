// The entry is not in the library; here it is an ordinary function.
#include "app/main.cpp"

#include "support/app_test.h"

IMPORTED(CheckTokenMembership, GetCommandLineW, GetFileAttributesW, GetProcAddress, SetDefaultDllDirectories,
         SetThreadErrorMode, SetUnhandledExceptionFilter, GetStdHandle, TerminateProcess)

namespace repair
{
namespace
{
class ProcessEntry : public AppTest
{
protected:
    ~ProcessEntry() override
    {
        std::set_terminate(terminate_);
        CloseHandle(output_);
    }

    int Start(const std::wstring& arguments, HINSTANCE instance = nullptr)
    {
        line_ = L"tool.exe " + arguments;
        return wWinMain(instance, nullptr, nullptr, 0);
    }
    // What the process wrote to its standard output.
    std::string Output() const
    {
        std::string text(1000, '\0');
        DWORD read = 0;
        SetFilePointer(output_, 0, nullptr, FILE_BEGIN);
        ReadFile(output_, text.data(), static_cast<DWORD>(text.size()), &read, nullptr);
        return text.substr(0, read);
    }
    bool RanTheDirectInstall(const std::wstring& installer) const
    {
        return testing::Value(machine_.steps, Contains(StartsWith(L"run " + installer + L" | /NCRC")));
    }

    std::terminate_handler terminate_ = std::get_terminate();
    std::wstring line_;
    HANDLE output_ = CreateFileW(machine_.Folder().WriteBytes(L"output", "").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                 nullptr, OPEN_EXISTING, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    LPTOP_LEVEL_EXCEPTION_FILTER filter_ = nullptr;

    SUBSTITUTE(GetCommandLineW)
    commandLine_{[this] {
        order_.push_back("command line");
        return line_.data();
    }};
    SUBSTITUTE(SetDefaultDllDirectories)
    dllFolders_{[this](DWORD flags) {
        EXPECT_EQ(flags, 0x800u);
        order_.push_back("DLL folders");
        return FailWith(87);  // the result does not matter
    }};
    SUBSTITUTE(SetThreadErrorMode)
    errorMode_{[this](DWORD mode, DWORD* before) {
        EXPECT_EQ(std::tuple(mode, before), std::tuple(1u, nullptr));
        order_.push_back("error mode");
        return TRUE;
    }};
    SUBSTITUTE(SetUnhandledExceptionFilter)
    setFilter_{[this](LPTOP_LEVEL_EXCEPTION_FILTER filter) {
        filter_ = filter;
        return LPTOP_LEVEL_EXCEPTION_FILTER{nullptr};
    }};
    SUBSTITUTE(GetStdHandle)
    standard_{[this](DWORD which) { return which == STD_OUTPUT_HANDLE ? output_ : standard_.Original()(which); }};
};

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: The process starts => the search for libraries is limited to the system's folder first; a failure of this is ignored
// Proves: The process is given its module => it is kept for window and boxes
// Proves: A drive without a medium is accessed => an error code, and no box of the system; set for both threads before they access a file
TEST_F(ProcessEntry, RestrictsTheLibrarySearchThenTurnsOffTheBoxesOfTheSystemAndKeepsTheModuleInstance)
{
    const auto instance = reinterpret_cast<HINSTANCE>(0x1234);
    EXPECT_EQ(Start(L"-VLT -Install", instance), 2);
    EXPECT_EQ(AppInstance, instance);
    EXPECT_THAT(order_, ElementsAre("DLL folders", "error mode", "command line"));
}

std::vector<std::vector<DWORD>> policies;

BOOL WINAPI RecordPolicy(PROCESS_MITIGATION_POLICY policy, void* data, SIZE_T bytes)
{
    policies.push_back({static_cast<DWORD>(policy), *static_cast<DWORD*>(data), static_cast<DWORD>(bytes)});
    return FailWith(87);  // the result does not matter
}

// Proves: The process starts as the system account => links that users plant are refused before any file is touched; not for other accounts, not if Windows lacks the function, and not if the log or the temporary folder is behind a link
TEST_F(ProcessEntry, RefusesPlantedLinksAsTheSystemAccountOnly)
{
    BOOL isSystem = FALSE;
    bool isKnown = true;
    SUBSTITUTE(CheckTokenMembership)
    check([&](HANDLE token, PSID account, BOOL* isMember) {
        EXPECT_EQ(token, nullptr);
        EXPECT_NE(IsWellKnownSid(account, WinLocalSystemSid), FALSE);
        *isMember = isSystem;
        return TRUE;
    });
    SUBSTITUTE(GetProcAddress)
    lookUp([&](HMODULE library, const char* name) {
        if (reinterpret_cast<ULONG_PTR>(name) <= 0xFFFF || std::string(name) != "SetProcessMitigationPolicy")
        {
            return lookUp.Original()(library, name);
        }
        EXPECT_EQ(library, GetModuleHandleW(L"kernel32.dll"));
        EXPECT_THAT(order_, ElementsAre("DLL folders", "error mode"));
        return isKnown ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&RecordPolicy)) : FARPROC{nullptr};
    });
    std::wstring link;
    SUBSTITUTE(GetFileAttributesW)
    attributes([&](const wchar_t* path) {
        const DWORD found = attributes.Original()(path);
        return path == link ? found | FILE_ATTRIBUTE_REPARSE_POINT : found;
    });
    const auto start = [&] {
        order_.clear();
        policies.clear();
        EXPECT_EQ(Start(L"-VLT -Install"), 2);
        return policies;
    };
    EXPECT_THAT(start(), IsEmpty());
    isSystem = TRUE;
    const std::wstring temporary = machine_.Folder().Path();
    for (const std::wstring& each :
         {std::wstring(L"C:\\Program Files\\Tavik"), temporary, temporary.substr(0, temporary.rfind(L'\\'))})
    {
        link = each;
        EXPECT_THAT(start(), IsEmpty()) << PrintToString(link);
    }
    link = temporary + L"2";
    EXPECT_THAT(start(), ElementsAre(ElementsAre(16u, 1u, 4u)));
    isKnown = false;
    EXPECT_THAT(start(), IsEmpty());
}

// Proves: `-VLT` and `-Install`, and there is no such file (or no path, or a folder) => a line in the log, a text without a line end on the standard output, exit code 2; no window, no box, nothing is done
TEST_F(ProcessEntry, GivenInstallerThatIsMissingIsLoggedPrintedAndGivesTwo)
{
    EXPECT_EQ(RunLogged([this] { return Start(L"-VLT -Install -Path \"C:\\no such.exe\""); }), 2);
    EXPECT_THAT(lines_, ElementsAre(L"Launched with command line: tool.exe -VLT -Install -Path \"C:\\no such.exe\"",
                                    L"Unable to find file at : C:\\no such.exe."));
    EXPECT_EQ(Start(L"-vlt -install -path"), 2);
    EXPECT_EQ(Output(),
              "The given location does not contain the file : C:\\no such.exe"
              "The given location does not contain the file : ");
    EXPECT_THAT(machine_.steps, IsEmpty());
    EXPECT_THAT(boxes_.boxes, IsEmpty());
}

// Proves: The place that `-Path` names cannot be examined (no medium, the share is gone or refuses) => as if there were no file
TEST_F(ProcessEntry, GivenInstallerThatCannotBeExaminedCountsAsMissing)
{
    DWORD code = 0;
    SUBSTITUTE(GetFileAttributesW)
    attributes([&](const wchar_t* path) {
        return path == std::wstring(L"X:\\setup.exe") ? FailWith(code, INVALID_FILE_ATTRIBUTES)
                                                      : attributes.Original()(path);
    });
    for (const DWORD each : {5u, 21u, 64u, 121u, 1231u, 1326u})
    {
        code = each;
        LogCapture log;
        EXPECT_EQ(Start(L"-VLT -Install -Path X:\\setup.exe"), 2) << code;
        EXPECT_THAT(log.Lines(), ElementsAre(testing::_, L"Unable to find file at : X:\\setup.exe.")) << code;
    }
    EXPECT_THAT(Output(), testing::EndsWith("The given location does not contain the file : X:\\setup.exe"));
    EXPECT_THAT(machine_.steps, IsEmpty());
}

// Proves: `-VLT` and `-Install`, and the file exists => direct installation; its result is the exit code
TEST_F(ProcessEntry, GivenInstallerIsInstalledWithoutTheCheck)
{
    registry_.SetString(L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\", L"Location", L"C:\\HL");
    const std::wstring installer = machine_.Folder().WriteBytes(L"given.exe", "x");
    EXPECT_EQ(Start(L"-vlt -install -path \"" + installer + L"\""), 0);
    EXPECT_TRUE(RanTheDirectInstall(installer));
    EXPECT_THAT(devices_.calls, IsEmpty());
}

TEST_F(ProcessEntry, ResultOfTheDirectInstallIsTheExitCode)
{
    const std::wstring installer = machine_.Folder().WriteBytes(L"given.exe", "x");
    BlockTheInstallation();
    EXPECT_EQ(Start(L"-VLT -Install -Path \"" + installer + L"\""), -1);
}

// Proves: Only one of `-VLT` and `-Install`, or `-Path` alone => the ordinary check; its result is the exit code
TEST_F(ProcessEntry, OtherLinesRunTheCheckAndReturnItsResult)
{
    const std::wstring installer = machine_.Folder().WriteBytes(L"given.exe", "x");
    const std::wstring path = L" -Path " + installer;
    for (const std::wstring& arguments : {std::wstring(), std::wstring(L"-VLT"), std::wstring(L"-Install"), path,
                                          L"-VLT" + path, L"-Install" + path, std::wstring(L"-FORCE")})
    {
        Force = VltMode = InstallMode = false;
        devices_.calls.clear();
        EXPECT_EQ(Start(arguments), -1);
        EXPECT_THAT(devices_.calls, Not(IsEmpty()));
        EXPECT_FALSE(RanTheDirectInstall(installer));
        EXPECT_EQ(Output(), "");
    }
}

// Proves: An error that is not caught => the process ends with code 3, without a box
TEST_F(ProcessEntry, UncaughtErrorEndsTheProcessWithoutABox)
{
    std::vector<UINT> codes;
    SUBSTITUTE(TerminateProcess)
    terminate([&](HANDLE process, UINT code) {
        EXPECT_EQ(process, GetCurrentProcess());
        codes.push_back(code);
        throw 5;  // does not come back
        return TRUE;
    });
    Start(L"-SILENT");
    ASSERT_NE(filter_, nullptr);
    EXPECT_ANY_THROW(filter_(nullptr));
    EXPECT_NE(std::get_terminate(), terminate_);
    ASSERT_NE(__pfnDliFailureHook2, nullptr);  // a delay-loaded library or function is missing
    EXPECT_ANY_THROW(__pfnDliFailureHook2(dliFailGetProc, nullptr));
    EXPECT_THAT(codes, ElementsAre(3u, 3u));
}
}  // namespace
}  // namespace repair
