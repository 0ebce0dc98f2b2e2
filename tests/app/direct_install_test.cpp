#include <atomic>
#include <exception>

#include "app/direct_install.h"
#include "app/switches.h"
#include "base/registry.h"
#include "support/app_test.h"

IMPORTED(PostThreadMessageW, RegCloseKey, RegCreateKeyExW, RegSetValueExW, SetDlgItemTextW, ShowWindow, WriteFile)

namespace repair
{
namespace
{
constexpr wchar_t kInstallKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\";
const BoxRecorder::Box kUpdateFailed = {
    L"Update failed. Please visit www.tavik.example to install the appropriate driver.", 0x10010};

// Has no module instance and so no window, unless the test asks for one.
class DirectInstall : public AppTest
{
protected:
    DirectInstall()
    {
        registry_.SetString(kInstallHaldenKey, L"Location", L"C:\\HL");
        machine_.UnpacksMainPackage();
        runtime_.packages = {{kStorePackage, {1, 0, 0, 0}}};
    }

    int Install()
    {
        return RunLogged([] { return RunDirectInstall(L"C:\\given.exe"); });
    }
    // The marker that the installation leaves: its type, size and number, or an empty text.
    void ExpectInstall(const std::string& marker)
    {
        EXPECT_EQ(Install(), 0);
        EXPECT_EQ(Marker(), marker);
        EXPECT_THAT(boxes_.boxes, IsEmpty());
        EXPECT_THAT(devices_.calls, IsEmpty());
        ASSERT_GE(machine_.steps.size(), 2u);
        EXPECT_EQ(machine_.steps.rbegin()[1], L"run C:\\HL\\CorvelSoftware.exe |  | -");
        EXPECT_EQ(machine_.steps.back(), L"wait 30000");
    }
    void ExpectRegistryError(int code, const std::string& text)
    {
        try
        {
            Install();
            ADD_FAILURE() << "no exception was thrown";
        }
        catch (const RegKeyError& error)
        {
            EXPECT_EQ(error.code().value(), code);
            EXPECT_THAT(error.what(), StartsWith(text));
        }
        EXPECT_EQ(Marker(), "4:4:1");  // everything before has been done
    }

    static std::string Marker()
    {
        DWORD type = 0;
        DWORD data = 0;
        DWORD size = sizeof(data);
        const LSTATUS status =
            RegGetValueW(HKEY_LOCAL_MACHINE, kInstallKey, L"VLTUWPReplaced", RRF_RT_ANY, &type, &data, &size);
        return status == ERROR_SUCCESS ? std::to_string(type) + ":" + std::to_string(size) + ":" + std::to_string(data)
                                       : "";
    }
    bool WasStoreEditionRemoved() const
    {
        return testing::Value(runtime_.Calls(), Contains(std::wstring(L"RemovePackageWithOptionsAsync name=\"") +
                                                         kStorePackage + L"\"; options=0x80000"));
    }
};

// Proves: There is no status window (direct installation) => everything else is done
// Proves: Whether the desktop edition is there => is asked before anything is touched
// Proves: The desktop edition was missing => all three packages are installed
// Proves: It was missing and the installation succeeded (a wanted restart included) => the Store packages are removed, then the marker 1 is written; exit code 0
// Proves: Everything is done => `CorvelSoftware.exe` of the recorded location is started hidden, without arguments
TEST_F(DirectInstall, NewDesktopEditionGetsAllComponentsReplacesTheStoreEditionAndLeavesTheMarker)
{
    ExpectInstall("4:4:1");
    EXPECT_EQ(machine_.steps[0], std::wstring(L"related ") + kHalden);
    EXPECT_THAT(machine_.steps[1], StartsWith(L"run C:\\given.exe | /NCRC /S -EXTRACTONLY=YES /D="));
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(3));
    EXPECT_TRUE(WasStoreEditionRemoved());
    EXPECT_EQ(lines_.back(), L"Process C:\\HL\\CorvelSoftware.exe  completed with exit code 0");
}

// Proves: The desktop edition was there before => only what was there is replaced, no Store removal, no marker
TEST_F(DirectInstall, DesktopEditionThatWasThereMeansNoRemovalNoMarkerAndNoFurtherComponents)
{
    machine_.products[kHalden] = {L"C:\\old.msi"};
    ExpectInstall("");
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(2));  // the removal of the old one and the new one
}

// Proves: The installation fails, or the installer unpacks nothing => not reported: no marker, no Store removal, the application is started, exit code 0
TEST_F(DirectInstall, FailedInstallationIsNotReportedAndTheApplicationStartedAllTheSame)
{
    FailTheMainPackage();
    ExpectInstall("");
    machine_.onRun = [] {};  // the installer unpacks nothing
    ExpectInstall("");
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
}

// Proves: Another program tries to replace the given installer before anything is prepared => it cannot
TEST_F(DirectInstall, GivenInstallerIsHeldFromTheStart)
{
    const std::wstring installer = machine_.Folder().WriteBytes(L"given.exe", "x");
    std::vector<BOOL> attempts;
    SUBSTITUTE(MsiEnumRelatedProductsW)
    first([&](auto...) {
        attempts.push_back(MoveFileW(installer.c_str(), (installer + L".away").c_str()));
        return UINT{ERROR_NO_MORE_ITEMS};
    });
    EXPECT_EQ(RunDirectInstall(installer), 0);
    ASSERT_FALSE(attempts.empty());
    EXPECT_EQ(attempts.front(), FALSE);
}

// Proves: The application is missing, or ends with a code of its own => only logged
// Proves: A Store package stays, or the Store cannot be asked => logged; the marker is written
TEST_F(DirectInstall, ApplicationThatDoesNotStartAndStoreThatCannotBeAskedAreOnlyLogged)
{
    machine_.startErrors[L"C:\\HL\\CorvelSoftware.exe"] = 2;
    runtime_.manager.answers[L"activation"].result = E_FAIL;
    EXPECT_EQ(Install(), 0);
    EXPECT_THAT(lines_.back(), StartsWith(L"Launching process C:\\HL\\CorvelSoftware.exe  failed. Error code = 2 "));
    EXPECT_EQ(Marker(), "4:4:1");
}

// Proves: The installation raises an exception (direct installation) => logged, the window is hidden, box "Update failed. ...", even with `-SILENT`; exit code -1, the application is not started
TEST_F(DirectInstall, ExceptionIsLoggedAndShownEvenWhenSilentAndGivesMinusOne)
{
    Silent = true;
    BlockTheInstallation();
    EXPECT_EQ(Install(), -1);
    EXPECT_THAT(lines_, ElementsAre(StartsWith(L"\tException occured during installation. filesystem error: ")));
    EXPECT_THAT(boxes_.boxes, ElementsAre(kUpdateFailed));
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
    EXPECT_EQ(Marker(), "");
}

TEST_F(DirectInstall, MarkerKeyIsCreatedInTheOwnViewWithDefaultSecurityAndClosed)
{
    HKEY created = nullptr;
    SUBSTITUTE(RegCreateKeyExW)
    create([&](HKEY root, const wchar_t* path, DWORD reserved, wchar_t* name, DWORD options, REGSAM access,
               const SECURITY_ATTRIBUTES* security, HKEY* key, DWORD* disposition) {
        EXPECT_STREQ(path, L"SOFTWARE\\Orrel Technologies\\Install\\");
        EXPECT_EQ(std::tuple(root, reserved, name, options, access, security),
                  std::tuple(HKEY_LOCAL_MACHINE, 0u, nullptr, 0u, 0x2001Fu, nullptr));
        const LSTATUS status =
            create.Original()(root, path, reserved, name, options, access, nullptr, key, disposition);
        created = *key;
        return status;
    });
    SUBSTITUTE(RegSetValueExW)
    set([&](HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
        EXPECT_EQ(key, created);
        EXPECT_STREQ(name, L"VLTUWPReplaced");
        EXPECT_EQ(std::tuple(reserved, type, size), std::tuple(0u, 4u, 4u));
        EXPECT_TRUE(WasStoreEditionRemoved());  // that comes first
        return set.Original()(key, name, reserved, type, data, size);
    });
    SUBSTITUTE(RegCloseKey)
    close([&](HKEY key) {
        if (key != nullptr && key == created)
        {
            machine_.steps.push_back(L"close");
            created = nullptr;  // the next key may get the same number
        }
        return close.Original()(key);
    });
    ExpectInstall("4:4:1");
    EXPECT_EQ(machine_.steps.rbegin()[2], L"close");  // before the application starts
    EXPECT_THAT(machine_.steps, Contains(L"close").Times(1));
}

// Proves: The marker's key cannot be created => one line in the log, the application is started, exit code 0
// Proves: The marker cannot be written => the same
TEST_F(DirectInstall, MarkerThatCannotBeWrittenIsOneLineAndTheApplicationStarts)
{
    std::vector<std::string> errors;  // the exceptions that are handled while the log is written
    SUBSTITUTE(WriteFile)
    write([&](auto... arguments) {
        try
        {
            if (const std::exception_ptr handled = std::current_exception())
            {
                std::rethrow_exception(handled);
            }
        }
        catch (const RegKeyError& error)
        {
            errors.push_back(error.what());
        }
        return write.Original()(arguments...);
    });
    const auto expectOneLine = [&](const std::string& error) {
        ExpectInstall("");
        EXPECT_THAT(lines_, Contains(L"Unable to create VLTUWPReplaced registry key SOFTWARE\\Orrel "
                                     L"Technologies\\Install\\")
                                .Times(1));
        const std::string text = error + ": " + std::system_category().message(5);
        EXPECT_THAT(std::exchange(errors, {}), ElementsAre(text, text));  // a line is two writes
    };
    {
        SUBSTITUTE(RegCreateKeyExW) create([](auto...) { return FailWith(ERROR_BUSY, LSTATUS{5}); });
        expectOneLine("Unable to get create registry key");
    }
    SUBSTITUTE(RegSetValueExW) set([](auto...) { return FailWith(ERROR_BUSY, LSTATUS{5}); });
    expectOneLine("Unable to write to registry for value = VLTUWPReplaced data = 1.");
}

// Proves: The application's key or its location is missing => the registry error gets out and ends the process with code 3, after everything before was done
TEST_F(DirectInstall, WithoutTheApplicationsKeyOrLocationTheRegistryErrorGetsOut)
{
    registry_.SetValue(kInstallHaldenKey, L"Location", REG_DWORD, {1, 0, 0, 0});
    ExpectRegistryError(1630, "Unable to get registry value: ");
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Orrel Technologies\\Install\\Halden");
    ExpectRegistryError(2, "Unable to open registry key: ");
}

// --- With a window
class DirectInstallWindow : public DirectInstall
{
protected:
    DirectInstallWindow() { AppInstance = GetModuleHandleW(nullptr); }
    ~DirectInstallWindow() override { AppInstance = nullptr; }

    std::atomic<int> shown_ = 0;
    std::atomic<int> hidden_ = 0;
    std::atomic<int> stops_ = 0;
    SUBSTITUTE(ShowWindow)
    show_{[this](HWND window, int command) {
        (command == SW_SHOW ? shown_ : hidden_) += 1;
        return show_.Original()(window, command);
    }};
    SUBSTITUTE(PostThreadMessageW)
    post_{[this](DWORD thread, UINT message, WPARAM first, LPARAM second) {
        stops_ += message == WM_CLOSE ? 1 : 0;
        machine_.steps.push_back(L"stop");
        return post_.Original()(thread, message, first, second);
    }};
};

// Proves: It starts => the window is shown with "Installing...", even with `-SILENT`; no adapter is read, the instance guard is neither asked nor taken
TEST_F(DirectInstallWindow, IsShownEvenWhenSilentAndSaysInstallingAndIsStopped)
{
    Silent = true;
    std::wstring status;
    SUBSTITUTE(SetDlgItemTextW)
    set([&](HWND dialog, int control, const wchar_t* text) {
        if (control == 1004)
        {
            status = text;
        }
        return set.Original()(dialog, control, text);
    });
    std::wstring statusWhileInstalling;
    machine_.onRun = [&, onRun = machine_.onRun] {
        statusWhileInstalling = statusWhileInstalling.empty() ? status : statusWhileInstalling;
        onRun();
    };
    EXPECT_EQ(Install(), 0);
    EXPECT_EQ(statusWhileInstalling, L"Installing...");
    EXPECT_EQ(shown_, 2);  // picture and dialog
    EXPECT_EQ(hidden_, 0);
    EXPECT_EQ(stops_, 1);
    ASSERT_GE(machine_.steps.size(), 3u);
    EXPECT_EQ(machine_.steps.rbegin()[2], L"run C:\\HL\\CorvelSoftware.exe |  | -");
    EXPECT_EQ(machine_.steps.back(), L"stop");
}

TEST_F(DirectInstallWindow, IsHiddenBeforeTheFailureBoxAndStoppedAfterIt)
{
    BlockTheInstallation();
    boxes_.onBox = [this] {
        EXPECT_EQ(hidden_, 1);
        EXPECT_EQ(stops_, 0);
    };
    EXPECT_EQ(Install(), -1);
    EXPECT_THAT(boxes_.boxes, ElementsAre(kUpdateFailed));
    EXPECT_EQ(stops_, 1);
}

// Proves: An exception that is not a standard one is raised => the window is stopped, it passes through
TEST_F(DirectInstallWindow, IsStoppedWhenAnotherKindOfExceptionPassesThrough)
{
    machine_.onRun = [] { throw 5; };
    const LogCapture log;
    EXPECT_THROW(Install(), int);
    EXPECT_EQ(stops_, 1);
    EXPECT_THAT(log.Lines(), Each(Not(StartsWith(L"\tException"))));
}
}  // namespace
}  // namespace repair
