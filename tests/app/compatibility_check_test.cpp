#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "app/compatibility_check.h"
#include "app/switches.h"
#include "support/box_recorder.h"
#include "support/fake_devices.h"
#include "support/fake_machine.h"
#include "support/fake_runtime.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

IMPORTED(CreateEventW, SetEvent, CloseHandle, ShowWindow, PostThreadMessageW, CreateDialogParamW)

namespace repair
{
namespace
{
struct Release
{
    std::wstring base;
    std::wstring installed;
    bool isSame;
};

const Release kReleases[] = {
    // The whole release
    {L"24.20.11.01", L"24.20.11.01", true},
    {L"22.Q4", L"22.Q4", true},
    {L"22.q4.extra", L"22.Q4.EXTRA", true},
    {L"", L"", true},
    // The prefix of the release
    {L"24.20.11.01", L"24.20", true},
    {L"22.q4.1", L"22.Q4", true},
    {L"24.20", L"24.20", true},
    // The prefixes of both
    {L"24.20.11.01", L"24.20.99", true},
    {L"24.20.11.01", L"24.205", true},
    {L"24.20", L"24.20.11.01", true},
    {L"22.q4.1", L"22.Q4.2", true},
    // Another release
    {L"24.20.11.01", L"24.2", false},
    {L"24.20.11.01", L"24.21.11.01", false},
    {L"24.20.11.01", L"24.10.11.01", false},
    {L"24.20.11.01", L"", false},
    {L"24.20.11.01", L"4.20.11.01", false},
    {L"24.20.11.01", L"0.0", false},
    {L"", L"24.20", false},
    {L"24.2", L"24.20", false},
    {L"24.1", L"24.10.1", false},
};

// Proves: The whole release equals the installed version => same release
// Proves: The release's first five characters equal the installed version, or its first five characters (24.20 and 24.20.11.01) => same release
// Proves: Only the letter case differs => same release
// Proves: None of these => another release, which is repaired
TEST(SameRelease, ByTheWholeTextOrByFiveCharactersInAnyLetterCase)
{
    for (const Release& release : kReleases)
    {
        EXPECT_EQ(IsSameRelease(release.base, release.installed), release.isSame)
            << testing::PrintToString(release.base) << " with " << testing::PrintToString(release.installed);
    }
}

TEST(ReleasePrefix, IsTheFirstFiveCharacters)
{
    EXPECT_EQ(ReleasePrefix(L"24.20.11.01"), L"24.20");
    EXPECT_EQ(ReleasePrefix(L"24.20"), L"24.20");
    EXPECT_EQ(ReleasePrefix(L"24.2"), L"24.2");
    EXPECT_EQ(ReleasePrefix(L""), L"");
    EXPECT_EQ(ReleasePrefix(L"4.2.20"), L"4.2.2");
}

constexpr wchar_t kEventName[] = L"Tavik_Software_Repair_Tool_Mutex";
constexpr wchar_t kHalden[] = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";
constexpr wchar_t kStorePackage[] = L"TavikSystemsInc-2.TavikCorvelSoftware_1.0.0.0_x64__abc";
constexpr wchar_t kSameReleaseLine[] =
    L"Currently installed version of VLT is from the same release as the active driver.";
constexpr wchar_t kSameReleaseExit[] =
    L"Currently installed version of VLT is from the same release as the active driver. Exiting.";
const BoxRecorder::Box kCompatible = {
    L"The version of Tavik Software installed is already a compatible version. Please check if the Tavik Display "
    L"Driver is working correctly.",
    0x10040};

// The whole flow without a window, on a machine of the test's own.
class Check : public testing::Test
{
protected:
    void Installed(const std::wstring& version, const std::wstring& driverVersion = L"1.2")
    {
        registry_.SetString(L"SOFTWARE\\Tavik\\HL", L"HLVersion", version);
        registry_.SetString(L"SOFTWARE\\Tavik\\HL", L"DriverVersion", driverVersion);
    }
    void DesktopEdition(const std::wstring& version)
    {
        machine_.products[kHalden] = {L"C:\\old.msi"};
        Installed(version);
    }
    void StoreEdition(component::PackageVersion version) { runtime_.packages = {{kStorePackage, version}}; }
    void Driver(const std::wstring& release)
    {
        devices_.AddAdapter(L"PCI\\VEN_1E7D", release).description = L"Tavik DWX";
    }
    void NothingToDownload() { registry_.SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", L"no address"); }

    // Runs the flow; afterwards the lines and boxes are those of the flow alone.
    int RunFlow()
    {
        LogCapture log;
        boxes_.boxes.clear();
        const int result = RunCompatibilityCheck();
        lines_ = log.Lines();
        std::erase_if(lines_, [](const std::wstring& line) {
            return line.starts_with(L"Enumerating ") || line.starts_with(L"Change server");
        });
        const HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, kEventName);
        isEventGone_ = event == nullptr;
        CloseHandle(event);
        return result;
    }
    void ExpectStoreInstall()
    {
        EXPECT_EQ(RunFlow(), 0);
        EXPECT_THAT(lines_, Contains(L"Attempting to download and install the UWP version of VLT."));
        EXPECT_THAT(runtime_.Calls(), Contains(L"install 9PQ4XK7ZT2MV"));
        EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Finished installing Tavik Software", 0x10040}));
        EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
        EXPECT_TRUE(isEventGone_);
    }
    void ExpectFailedDownload()
    {
        EXPECT_EQ(RunFlow(), -1);
        EXPECT_THAT(lines_, Contains(L"Unable to find dwx2-install.exe at []. Downloading dwx2_install.exe for [24.20] "
                                     L"from web."));
        EXPECT_EQ(lines_.back(), L"Unable to download dwx2_install.exe from web. Exiting.");
        EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Error downloading Tavik Software", 0x10010}));
    }

    MachineRegistry registry_;
    FakeMachine machine_;
    FakeRuntime runtime_;
    FakeDevices devices_;
    BoxRecorder boxes_;
    std::vector<std::wstring> lines_;
    bool isEventGone_ = false;
    std::vector<std::string> order_;  // "guard", "box", "signal", "close"
    HANDLE event_ = nullptr;
    DWORD eventError_ = ERROR_SUCCESS;  // fails the creation of the event
    SUBSTITUTE(CreateEventW)
    create_{[this](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        if (name == nullptr || isTestCreating_)
        {
            return create_.Original()(security, manual, set, name);
        }
        EXPECT_STREQ(name, kEventName);
        EXPECT_EQ(security, nullptr);
        EXPECT_EQ(manual, TRUE);
        EXPECT_EQ(set, FALSE);
        order_.push_back("guard");
        event_ = eventError_ != ERROR_SUCCESS ? FailWith(eventError_, HANDLE{nullptr})
                                              : create_.Original()(security, manual, set, name);
        return event_;
    }};
    SUBSTITUTE(SetEvent)
    signal_{[this](HANDLE event) {
        if (event == event_)
        {
            order_.push_back("signal");
        }
        return signal_.Original()(event);
    }};
    SUBSTITUTE(CloseHandle)
    close_{[this](HANDLE handle) {
        if (handle != nullptr && handle == event_)
        {
            order_.push_back("close");
            event_ = nullptr;
        }
        return close_.Original()(handle);
    }};
    bool isTestCreating_ = false;

    // The event of another instance. The caller closes it.
    HANDLE OtherInstance()
    {
        isTestCreating_ = true;
        const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, kEventName);
        isTestCreating_ = false;
        return event;
    }
};

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Another instance is running => box "Another instance is running." without an icon, result -1, nothing else is done
// Proves: The refused instance ends => it sets and closes the event, and the first one still holds the machine
TEST_F(Check, SecondInstanceSaysSoAndDoesNothingElse)
{
    const HANDLE first = OtherInstance();
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Another instance is running. Exiting."));
    EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Another instance is running.", 0x10000}));
    EXPECT_THAT(devices_.calls, IsEmpty());
    EXPECT_THAT(machine_.steps, IsEmpty());
    EXPECT_THAT(order_, ElementsAre("guard", "signal", "close"));
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);  // signalled all the same
    EXPECT_FALSE(isEventGone_);
    CloseHandle(first);
}

// Proves: The event exists but cannot be opened => the same exit, without an event to set
TEST_F(Check, SecondInstanceWithoutAHandleOnlyExits)
{
    eventError_ = ERROR_ALREADY_EXISTS;
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Another instance is running. Exiting."));
    EXPECT_THAT(order_, ElementsAre("guard"));
}

// Proves: The event cannot be created for another reason => the check goes on without a guard
TEST_F(Check, EventThatCannotBeCreatedDoesNotStopTheCheck)
{
    eventError_ = ERROR_ACCESS_DENIED;
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_EQ(lines_.back(), L"Unable to find installed Tavik display adapters. Exiting.");
    EXPECT_THAT(order_, ElementsAre("guard"));
}

// Proves: The guard is taken => a named event with manual reset, not set
// Proves: Any run => installed version and driver version are logged, then all adapters in their order
// Proves: No adapter of the maker => box "Unable to detect active Tavik Display Driver.", result -1
// Proves: The run ends => the event is set after the box and then closed
TEST_F(Check, WithoutAnAdapterOfTheMakerItExits)
{
    Installed(L"24.20", L"24.20.11.01");
    boxes_.onBox = [&] { order_.push_back("box"); };
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Currently installed VLT is version [24.20] from driver version [24.20.11.01]",
                                    L"Currently installed drivers on system:",
                                    L"Unable to find installed Tavik display adapters. Exiting."));
    EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Unable to detect active Tavik Display Driver.", 0x10010}));
    EXPECT_THAT(order_, ElementsAre("guard", "box", "signal", "close"));
    EXPECT_TRUE(isEventGone_);
}

// Proves: Neither edition installed, not forced => box "There is no Tavik Software application installed.", result -1
TEST_F(Check, WithoutAnyEditionItExits)
{
    Driver(L"24.20.11.01-xyz");
    Installed(L"24.20");  // left behind by an uninstalled edition, so it does not count
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Currently installed VLT is version [24.20] from driver version [1.2]",
                                    L"Currently installed drivers on system:", L"\t [Tavik DWX] [24.20.11.01-xyz] []",
                                    L"User does not desktop VLT installed.", L"UWP version is not installed",
                                    L"User does not have VLT installed. Exiting."));
    EXPECT_THAT(boxes_.boxes,
                ElementsAre(BoxRecorder::Box{L"There is no Tavik Software application installed.", 0x10040}));
}

// Proves: Desktop edition installed => its version counts, the Store is not asked
// Proves: Same release, not forced => box that the version is compatible, result -1
// Proves: Several adapters => only the first of the sorted list counts
TEST_F(Check, SameReleaseOfTheDesktopEditionExitsWithoutAskingTheStore)
{
    devices_.AddAdapter(L"PCI\\VEN_1E7D", L"22.10.1").description = L"Old";
    devices_.AddAdapter(L"PCI\\VEN_1E7D", L"24.20.11.01-xyz").description = L"New";
    DesktopEdition(L"24.20");
    StoreEdition({1, 1, 1, 0});
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Currently installed VLT is version [24.20] from driver version [1.2]",
                                    L"Currently installed drivers on system:", L"\t [New] [24.20.11.01-xyz] []",
                                    L"\t [Old] [22.10.1] []", kSameReleaseExit));
    EXPECT_THAT(boxes_.boxes, ElementsAre(kCompatible));
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
}

struct StoreVersion
{
    component::PackageVersion version;
    std::wstring comparedAs;
};

void PrintTo(const StoreVersion& version, std::ostream* stream)
{
    *stream << testing::PrintToString(version.comparedAs);
}

class StoreComparison : public Check, public testing::WithParamInterface<StoreVersion>
{
};
INSTANTIATE_TEST_SUITE_P(Versions, StoreComparison,
                         testing::Values(StoreVersion{{10, 24, 20, 7}, L"24.20"}, StoreVersion{{24, 20, 1, 0}, L"20.1"},
                                         StoreVersion{{1, 24, 5, 0}, L"24.5"}, StoreVersion{{1, 0, 0, 1}, L"0.0"},
                                         StoreVersion{{1, 24, 20110, 0}, L"24.20"},
                                         StoreVersion{{1, 65535, 65535, 0}, L"65535"}));

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Only the Store edition installed => second and third number of its version in decimal, without leading zeros, cut to five characters, replace the installed version
TEST_P(StoreComparison, IsMadeWithTheSecondAndThirdNumberCutToFiveCharacters)
{
    Driver(GetParam().comparedAs);
    StoreEdition(GetParam().version);
    Installed(L"99.99");  // replaced by the Store's
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_EQ(lines_.back(), kSameReleaseExit);
    EXPECT_THAT(lines_, Contains(L"User does not desktop VLT installed."));
    EXPECT_THAT(lines_, Not(Contains(L"User does not have VLT installed.")));
}

TEST_F(Check, OtherReleaseOfTheStoreEditionIsInstalledFromTheStore)
{
    Driver(L"24.20.1");
    StoreEdition({1, 22, 10, 0});
    ExpectStoreInstall();
}

// Proves: Another release => handed to the repair with the driver's folder and the five characters; its result is the check's
TEST_F(Check, OtherReleaseOfTheDesktopEditionIsRepairedForTheDriversFolderAndPrefix)
{
    machine_.Folder().CreateFolder(L"store\\Bin64");
    const std::wstring installer = machine_.Folder().WriteBytes(L"store\\Bin64\\DWX2_Install.exe", "x");
    const std::wstring inf = machine_.Folder().WriteBytes(
        L"store\\display.inf", "[Version]\r\nSignature=\"$WINDOWS NT$\"\r\n[a]\r\nHKR,,ReleaseVersion,,24.20.1\r\n");
    Driver(L"24.20.1");
    devices_.devices.back().packages = {{L"display.inf", inf}};
    DesktopEdition(L"22.10");
    machine_.UnpacksMainPackage();
    EXPECT_EQ(RunFlow(), 0);
    EXPECT_THAT(lines_, Contains(L"\t [Tavik DWX] [24.20.1] [" + (machine_.Folder() / L"store") + L"]"));
    EXPECT_THAT(lines_, Contains(L"Found dwx2-install.exe at [" + installer + L"]"));
}

TEST_F(Check, OtherReleaseWithoutADriverFolderIsDownloadedByItsPrefix)
{
    Driver(L"24.20.11.01-xyz");
    DesktopEdition(L"22.10");
    NothingToDownload();
    ExpectFailedDownload();
}

// Proves: Same release, forced => logged without "Exiting.", and repaired
TEST_F(Check, ForcedWithTheSameReleaseGoesOnToTheRepair)
{
    Force = true;
    Driver(L"24.20.1");
    DesktopEdition(L"24.20");
    NothingToDownload();
    ExpectFailedDownload();
    EXPECT_THAT(lines_, Contains(kSameReleaseLine));
}

// Proves: Neither edition installed, forced => logged; the Store edition is used, compared as 0.0
// Proves: `-FORCE` with neither edition => the Store edition is installed
TEST_F(Check, ForcedWithoutAnyEditionInstallsTheStoreEdition)
{
    Force = true;
    Driver(L"24.20.1");
    Installed(L"24.20");  // not compared: 0.0 is
    ExpectStoreInstall();
    EXPECT_THAT(lines_, Contains(L"User does not have VLT installed."));
    EXPECT_THAT(lines_, Not(Contains(kSameReleaseLine)));
}

TEST_F(Check, ForcedStoreEditionIsInstalledOverTheDesktopEdition)
{
    Force = true;
    ForceUwp = true;
    Driver(L"24.20.1");
    DesktopEdition(L"24.20");
    ExpectStoreInstall();
    EXPECT_THAT(lines_, Contains(kSameReleaseLine));
}

// Proves: `-SILENT` on any of these ways out => no box, no visible window, the log is written
TEST_F(Check, SilentRunsShowNoBoxOnAnyPathButLog)
{
    Silent = true;
    const auto expectExit = [this](const std::wstring& line) {
        EXPECT_EQ(RunFlow(), -1);
        EXPECT_EQ(lines_.back(), line);
        EXPECT_THAT(boxes_.boxes, IsEmpty());
    };
    expectExit(L"Unable to find installed Tavik display adapters. Exiting.");
    Driver(L"24.20.1");
    expectExit(L"User does not have VLT installed. Exiting.");
    DesktopEdition(L"24.20");
    expectExit(kSameReleaseExit);
    const HANDLE other = OtherInstance();
    expectExit(L"Another instance is running. Exiting.");
    CloseHandle(other);
}

// --- With a window
class CheckWithWindow : public Check, public testing::WithParamInterface<bool>
{
protected:
    CheckWithWindow()
    {
        AppInstance = GetModuleHandleW(nullptr);
        Silent = GetParam();
    }
    ~CheckWithWindow() override { AppInstance = nullptr; }
};
INSTANTIATE_TEST_SUITE_P(Silent, CheckWithWindow, testing::Bool());

// Proves: The check starts => the status window starts before the guard is taken, is shown unless silent, and is stopped last
TEST_P(CheckWithWindow, StartsItBeforeTheGuardShowsItUnlessSilentAndStopsItLast)
{
    std::atomic<int> shown = 0;
    boxes_.onBox = [&] { order_.push_back("box"); };
    SUBSTITUTE(CreateDialogParamW)
    dialog([&](HINSTANCE instance, const wchar_t* name, HWND owner, DLGPROC procedure, LPARAM parameter) {
        order_.push_back("window");
        return dialog.Original()(instance, name, owner, procedure, parameter);
    });
    SUBSTITUTE(ShowWindow)
    show([&](HWND window, int command) {
        shown += command == SW_SHOW ? 1 : 0;
        return show.Original()(window, command);
    });
    SUBSTITUTE(PostThreadMessageW)
    post([&](DWORD thread, UINT message, WPARAM first, LPARAM second) {
        order_.push_back("stop");
        return post.Original()(thread, message, first, second);
    });
    EXPECT_EQ(RunCompatibilityCheck(), -1);
    std::vector<std::string> expected = {"window", "guard", "box", "signal", "close", "stop"};
    if (GetParam())
    {
        expected.erase(expected.begin() + 2);
    }
    EXPECT_EQ(order_, expected);
    EXPECT_EQ(shown, GetParam() ? 0 : 2);
}
}  // namespace
}  // namespace repair
