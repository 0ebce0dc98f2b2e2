#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "app/direct_install.h"
#include "app/switches.h"
#include "base/registry.h"
#include "support/box_recorder.h"
#include "support/fake_machine.h"
#include "support/fake_runtime.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

IMPORTED(RegCreateKeyExW, RegSetValueExW, RegCloseKey, RegOpenKeyExW, ShowWindow, SetDlgItemTextW, PostThreadMessageW)

namespace repair
{
namespace
{
constexpr wchar_t kHalden[] = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";
constexpr wchar_t kInstallKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\";
constexpr wchar_t kApplicationKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\";
constexpr wchar_t kStorePackage[] = L"TavikSystemsInc-2.TavikCorvelSoftware_1.0.0.0_x64__abc";
constexpr wchar_t kMarkerLine[] =
    L"Unable to create VLTUWPReplaced registry key SOFTWARE\\Orrel Technologies\\Install\\";

// Without a module instance, so without a window, where the test does not ask for one.
class DirectInstall : public testing::Test
{
protected:
    DirectInstall()
    {
        registry_.SetString(kApplicationKey, L"Location", L"C:\\HL");
        machine_.UnpacksMainPackage();
        runtime_.packages = {{kStorePackage, {1, 0, 0, 0}}};
    }

    ~DirectInstall() override { EXPECT_THAT(boxes_.boxes, IsEmpty()); }

    // Installs C:\given.exe; afterwards the lines are those of the installation alone.
    int Install()
    {
        LogCapture log;
        const int result = RunDirectInstall(L"C:\\given.exe");
        lines_ = log.Lines();
        return result;
    }
    void ExpectInstallWithoutReplacement()
    {
        EXPECT_EQ(Install(), 0);
        EXPECT_THAT(runtime_.Calls(), IsEmpty());
        EXPECT_EQ(Marker(), "");
        ExpectApplicationStarted();
    }
    void ExpectInstallWithoutMarker()
    {
        EXPECT_EQ(Install(), 0);
        EXPECT_THAT(lines_, Contains(kMarkerLine).Times(1));
        EXPECT_EQ(Marker(), "");
        ExpectApplicationStarted();
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

    // Type and bytes of the marker, or an empty text.
    static std::string Marker()
    {
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kInstallKey, 0, KEY_READ, &key) != ERROR_SUCCESS)
        {
            return "";
        }
        DWORD type = 0;
        DWORD data = 0;
        DWORD size = sizeof(data);
        const LSTATUS status =
            RegQueryValueExW(key, L"VLTUWPReplaced", nullptr, &type, reinterpret_cast<BYTE*>(&data), &size);
        RegCloseKey(key);
        return status == ERROR_SUCCESS ? std::to_string(type) + ":" + std::to_string(size) + ":" + std::to_string(data)
                                       : "";
    }
    bool WasStoreEditionRemoved() const
    {
        return testing::Value(runtime_.Calls(), Contains(std::wstring(L"remove ") + kStorePackage + L" 0x80000"));
    }
    void ExpectApplicationStarted() const
    {
        ASSERT_GE(machine_.steps.size(), 2u);
        EXPECT_EQ(machine_.steps[machine_.steps.size() - 2], L"run C:\\HL\\CorvelSoftware.exe |  | -");
        EXPECT_EQ(machine_.steps.back(), L"wait 30000");
    }

    MachineRegistry registry_;
    FakeMachine machine_;
    FakeRuntime runtime_;
    BoxRecorder boxes_;
    std::vector<std::wstring> lines_;
};

// Proves: There is no status window (direct installation) => everything else is done
// Proves: Whether the desktop edition is there => is asked before anything is touched
// Proves: The desktop edition was missing => all three packages are installed
// Proves: It was missing and the installation succeeded (a wanted restart included) => the Store packages are removed, then the marker 1 is written; exit code 0
// Proves: Everything is done => `CorvelSoftware.exe` of the recorded location is started hidden, without arguments
TEST_F(DirectInstall, NewDesktopEditionGetsAllComponentsReplacesTheStoreEditionAndLeavesTheMarker)
{
    EXPECT_EQ(Install(), 0);
    EXPECT_EQ(machine_.steps[0], std::wstring(L"related ") + kHalden);
    EXPECT_EQ(machine_.steps[1], L"ui 2");
    EXPECT_THAT(machine_.steps[2], StartsWith(L"run C:\\given.exe | /NCRC /S -EXTRACTONLY=YES /D="));
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(3));
    EXPECT_TRUE(WasStoreEditionRemoved());
    EXPECT_EQ(Marker(), "4:4:1");
    ExpectApplicationStarted();
    EXPECT_THAT(lines_, Contains(L"Process C:\\HL\\CorvelSoftware.exe  completed with exit code 0"));
}

// Proves: The desktop edition was there before => only what was there is replaced, no Store removal, no marker
TEST_F(DirectInstall, DesktopEditionThatWasThereMeansNoRemovalNoMarkerAndNoFurtherComponents)
{
    machine_.products[kHalden] = {L"C:\\old.msi"};
    ExpectInstallWithoutReplacement();
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(2));  // the removal of the old one and the new one
}

// Proves: The installation fails, or the installer unpacks nothing => not reported: no marker, no Store removal, the application is started, exit code 0
TEST_F(DirectInstall, FailedInstallationIsNotReportedAndTheApplicationStartedAllTheSame)
{
    machine_.packageResults[machine_.ExtractionFolder() + L"\\HL\\halden\\halden64\\dwx-next64.msi"] = 1603;
    ExpectInstallWithoutReplacement();
}

TEST_F(DirectInstall, InstallerThatUnpacksNothingIsNotReportedEither)
{
    machine_.onRun = [] {};
    ExpectInstallWithoutReplacement();
}

// Proves: The application is missing, or ends with a code of its own => only logged
TEST_F(DirectInstall, ApplicationThatDoesNotStartIsOnlyLogged)
{
    machine_.startErrors[L"C:\\HL\\CorvelSoftware.exe"] = 2;
    EXPECT_EQ(Install(), 0);
    EXPECT_THAT(lines_.back(), StartsWith(L"Launching process C:\\HL\\CorvelSoftware.exe  failed. Error code = 2 "));
}

// Proves: The installation raises an exception (direct installation) => logged, the window is hidden, box "Update failed. ...", even with `-SILENT`; exit code -1, the application is not started
TEST_F(DirectInstall, ExceptionIsLoggedAndShownEvenWhenSilentAndGivesMinusOne)
{
    Silent = true;
    machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload", "in the way");
    EXPECT_EQ(Install(), -1);
    EXPECT_THAT(lines_, ElementsAre(StartsWith(L"\tException occured during installation. filesystem error: ")));
    EXPECT_THAT(std::exchange(boxes_.boxes, {}),
                ElementsAre(BoxRecorder::Box{
                    L"Update failed. Please visit www.tavik.example to install the appropriate driver.", 0x10010}));
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
    EXPECT_EQ(Marker(), "");
}

TEST_F(DirectInstall, MarkerKeyIsCreatedInTheOwnViewWithDefaultSecurityAndClosed)
{
    HKEY created = nullptr;
    int closed = 0;
    SUBSTITUTE(RegCreateKeyExW)
    create([&](HKEY root, const wchar_t* path, DWORD reserved, wchar_t* name, DWORD options, REGSAM access,
               const SECURITY_ATTRIBUTES* security, HKEY* key, DWORD* disposition) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(path, L"SOFTWARE\\Orrel Technologies\\Install\\");
        EXPECT_EQ(reserved, 0u);
        EXPECT_EQ(name, nullptr);
        EXPECT_EQ(options, 0u);
        EXPECT_EQ(access, 0x2001Fu);
        EXPECT_EQ(security, nullptr);
        const LSTATUS status = create.Original()(root, path, reserved, name, options, access,
                                                 const_cast<SECURITY_ATTRIBUTES*>(security), key, disposition);
        created = *key;
        return status;
    });
    SUBSTITUTE(RegSetValueExW)
    set([&](HKEY key, const wchar_t* name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
        EXPECT_EQ(key, created);
        EXPECT_STREQ(name, L"VLTUWPReplaced");
        EXPECT_EQ(reserved, 0u);
        EXPECT_EQ(type, 4u);
        EXPECT_EQ(size, 4u);
        EXPECT_EQ(*reinterpret_cast<const DWORD*>(data), 1u);
        EXPECT_TRUE(WasStoreEditionRemoved());  // that comes first
        return set.Original()(key, name, reserved, type, data, size);
    });
    SUBSTITUTE(RegCloseKey)
    close([&](HKEY key) {
        if (key != nullptr && key == created)
        {
            ++closed;
            created = nullptr;  // the next key may get the same number
        }
        return close.Original()(key);
    });
    machine_.onRun = [this, onRun = machine_.onRun, &closed] {
        if (WasStoreEditionRemoved())
        {
            EXPECT_EQ(closed, 1);  // before the application runs
        }
        onRun();
    };
    Install();
    EXPECT_EQ(closed, 1);
}

// Proves: The marker's key cannot be created => one line in the log, the application is started, exit code 0
TEST_F(DirectInstall, MarkerKeyThatCannotBeCreatedIsOneLineAndTheApplicationStarts)
{
    SUBSTITUTE(RegCreateKeyExW)
    create([](HKEY, const wchar_t*, DWORD, wchar_t*, DWORD, REGSAM, const SECURITY_ATTRIBUTES*, HKEY*, DWORD*) {
        return LSTATUS{5};
    });
    ExpectInstallWithoutMarker();
}

// Proves: The marker cannot be written => the same
TEST_F(DirectInstall, MarkerThatCannotBeWrittenIsOneLineAndTheApplicationStarts)
{
    SUBSTITUTE(RegSetValueExW)
    set([](HKEY, const wchar_t*, DWORD, DWORD, const BYTE*, DWORD) { return LSTATUS{5}; });
    ExpectInstallWithoutMarker();
}

// Proves: A Store package stays, or the Store cannot be asked => logged; the marker is written
TEST_F(DirectInstall, StoreThatCannotBeAskedDoesNotKeepTheMarkerAway)
{
    runtime_.faults.fails[L"activation"] = E_FAIL;
    EXPECT_EQ(Install(), 0);
    EXPECT_EQ(Marker(), "4:4:1");
}

// Proves: The application's key or its location is missing => the registry error gets out and ends the process with code 3, after everything before was done
TEST_F(DirectInstall, WithoutTheApplicationsKeyTheRegistryErrorGetsOut)
{
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Orrel Technologies\\Install\\Halden");
    ExpectRegistryError(2, "Unable to open registry key: ");
}

TEST_F(DirectInstall, WithoutALocationTheRegistryErrorGetsOut)
{
    registry_.SetValue(kApplicationKey, L"Location", REG_DWORD, {1, 0, 0, 0});
    ExpectRegistryError(1630, "Unable to get registry value: ");
}

TEST_F(DirectInstall, ApplicationsKeyIsReadOnlyAndInTheOwnView)
{
    int opened = 0;
    SUBSTITUTE(RegOpenKeyExW)
    open([&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
        if (std::wstring(path) == kApplicationKey)
        {
            ++opened;
            EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
            EXPECT_EQ(access, 0x20019u);
        }
        return open.Original()(root, path, options, access, key);
    });
    Install();
    EXPECT_EQ(opened, 3);  // for the folder of the installation, for the stop, for the start
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
}

TEST_F(DirectInstallWindow, IsHiddenBeforeTheFailureBoxAndStoppedAfterIt)
{
    machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload", "in the way");
    boxes_.onBox = [this] {
        EXPECT_EQ(hidden_, 1);
        EXPECT_EQ(stops_, 0);
    };
    EXPECT_EQ(Install(), -1);
    EXPECT_THAT(std::exchange(boxes_.boxes, {}), SizeIs(1));
    EXPECT_EQ(stops_, 1);
}

// Proves: An exception that is not a standard one is raised => the window is stopped, it passes through
TEST_F(DirectInstallWindow, IsStoppedWhenAnotherKindOfExceptionPassesThrough)
{
    machine_.onRun = [] { throw 5; };
    LogCapture log;
    EXPECT_THROW(RunDirectInstall(L"C:\\given.exe"), int);
    EXPECT_EQ(stops_, 1);
    EXPECT_THAT(log.Lines(), Each(Not(StartsWith(L"\tException"))));
}
}  // namespace
}  // namespace repair
