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
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

IMPORTED(CreateEventW)
IMPORTED(SetEvent)
IMPORTED(CloseHandle)
IMPORTED(ShowWindow)
IMPORTED(PostThreadMessageW)
IMPORTED(CreateDialogParamW)

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

void PrintTo(const Release& release, std::ostream* stream)
{
    *stream << testing::PrintToString(release.base) << " with " << testing::PrintToString(release.installed);
}

class SameRelease : public testing::TestWithParam<Release>
{
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

INSTANTIATE_TEST_SUITE_P(Pairs, SameRelease, testing::ValuesIn(kReleases));

// Proves: The whole release equals the installed version => same release
// Proves: The release's first five characters equal the installed version, or its first five characters (24.20 and 24.20.11.01) => same release
// Proves: Only the letter case differs => same release
// Proves: None of these => another release, which is repaired
TEST_P(SameRelease, ByTheWholeTextOrByFiveCharactersInAnyLetterCase)
{
    EXPECT_EQ(IsSameRelease(GetParam().base, GetParam().installed), GetParam().isSame);
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
    void StoreEdition(component::Version version) { runtime_.packages = {{kStorePackage, version}}; }
    void Driver(const std::wstring& release)
    {
        devices_.AddAdapter(L"PCI\\VEN_1E7D", release).description = L"Tavik DWX";
    }
    void NothingToDownload() { registry_.SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", L"no address"); }

    // Runs the flow; afterwards the lines are those of the flow alone.
    int RunFlow()
    {
        LogCapture log;
        const int result = RunCompatibilityCheck();
        for (const std::wstring& line : log.Lines())
        {
            if (!line.starts_with(L"Enumerating ") && !line.starts_with(L"Change server"))
            {
                lines_.push_back(line);
            }
        }
        return result;
    }
    bool IsEventGone() const
    {
        const HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, kEventName);
        CloseHandle(event);
        return event == nullptr;
    }

    MachineRegistry registry_;
    FakeMachine machine_;
    FakeRuntime runtime_;
    FakeDevices devices_;
    BoxRecorder boxes_;
    std::vector<std::wstring> lines_;
};

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Another instance is running => box "Another instance is running." without an icon, result -1, nothing else is done
// Proves: The refused instance ends => it sets and closes the event, and the first one still holds the machine
TEST_F(Check, SecondInstanceSaysSoAndDoesNothingElse)
{
    const HANDLE first = CreateEventW(nullptr, TRUE, FALSE, kEventName);
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Another instance is running. Exiting."));
    EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Another instance is running.", 0x10000}));
    EXPECT_THAT(devices_.calls, IsEmpty());
    EXPECT_THAT(machine_.steps, IsEmpty());
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);  // signalled all the same
    CloseHandle(first);
    EXPECT_TRUE(IsEventGone());
}

// Proves: The guard is taken => a named event with manual reset, not set
TEST_F(Check, InstanceEventIsANamedManualResetEvent)
{
    int created = 0;
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        if (name != nullptr && std::wstring(name) == kEventName)
        {
            ++created;
            EXPECT_EQ(security, nullptr);
            EXPECT_EQ(manual, TRUE);
            EXPECT_EQ(set, FALSE);
        }
        return create.Original()(security, manual, set, name);
    });
    RunFlow();
    EXPECT_EQ(created, 1);
}

// Proves: The event cannot be created for another reason => the check goes on without a guard
TEST_F(Check, EventThatCannotBeHadDoesNotStopTheCheck)
{
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        return name != nullptr ? FailWith(ERROR_ACCESS_DENIED, HANDLE{nullptr})
                               : create.Original()(security, manual, set, name);
    });
    int signalled = 0;
    SUBSTITUTE(SetEvent) signal([&](HANDLE event) { return ++signalled, signal.Original()(event); });
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_EQ(lines_.back(), L"Unable to find installed Tavik display adapters. Exiting.");
    EXPECT_EQ(signalled, 0);
}

// Proves: The event exists but cannot be opened => the same exit, without an event to set
TEST_F(Check, SecondInstanceWithoutAHandleOnlyExits)
{
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        return name != nullptr ? FailWith(183, HANDLE{nullptr}) : create.Original()(security, manual, set, name);
    });
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Another instance is running. Exiting."));
}

// Proves: Any run => installed version and driver version are logged, then all adapters in their order
// Proves: No adapter of the maker => box "Unable to detect active Tavik Display Driver.", result -1
TEST_F(Check, WithoutAnAdapterOfTheMakerItExits)
{
    Installed(L"24.20", L"24.20.11.01");
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Currently installed VLT is version [24.20] from driver version [24.20.11.01]",
                                    L"Currently installed drivers on system:",
                                    L"Unable to find installed Tavik display adapters. Exiting."));
    EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Unable to detect active Tavik Display Driver.", 0x10010}));
    EXPECT_TRUE(IsEventGone());
}

// Proves: The run ends => the event is set after the box and then closed
TEST_F(Check, EventIsSignalledAfterTheBoxAndThenClosed)
{
    HANDLE event = nullptr;
    std::vector<std::string> order;
    boxes_.onBox = [&] { order.push_back("box"); };
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        const HANDLE made = create.Original()(security, manual, set, name);
        event = name != nullptr ? made : event;
        return made;
    });
    SUBSTITUTE(SetEvent)
    signal([&](HANDLE handle) {
        if (handle == event)
        {
            order.push_back("signal");
        }
        return signal.Original()(handle);
    });
    SUBSTITUTE(CloseHandle)
    close([&](HANDLE handle) {
        if (handle == event)
        {
            order.push_back("close");
            event = nullptr;
        }
        return close.Original()(handle);
    });
    RunCompatibilityCheck();
    EXPECT_THAT(order, ElementsAre("box", "signal", "close"));
}

// Proves: Neither edition installed, not forced => box "There is no Tavik Software application installed.", result -1
TEST_F(Check, WithoutAnyEditionItExits)
{
    Driver(L"24.20.11.01-xyz");
    Installed(L"24.20");  // what an uninstalled edition left behind does not count
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
TEST_F(Check, SameReleaseOfTheDesktopEditionExitsWithoutAskingTheStore)
{
    Driver(L"24.20.11.01-xyz");
    DesktopEdition(L"24.20");
    StoreEdition({1, 1, 1, 0});
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, ElementsAre(L"Currently installed VLT is version [24.20] from driver version [1.2]",
                                    L"Currently installed drivers on system:", L"\t [Tavik DWX] [24.20.11.01-xyz] []",
                                    std::wstring(kSameReleaseLine) + L" Exiting."));
    EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"The version of Tavik Software installed is already a "
                                                           L"compatible version. Please check if the Tavik Display "
                                                           L"Driver is working correctly.",
                                                           0x10040}));
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
}

// Proves: Several adapters => only the first of the sorted list counts
TEST_F(Check, OnlyTheHighestReleaseCountsAndAllAreListedInThatOrder)
{
    devices_.AddAdapter(L"PCI\\VEN_1E7D", L"22.10.1").description = L"Old";
    devices_.AddAdapter(L"PCI\\VEN_1E7D", L"24.20.1").description = L"New";
    DesktopEdition(L"24.20");
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_EQ(lines_[2], L"\t [New] [24.20.1] []");
    EXPECT_EQ(lines_[3], L"\t [Old] [22.10.1] []");
    EXPECT_EQ(lines_.back(), std::wstring(kSameReleaseLine) + L" Exiting.");
}

struct StoreVersion
{
    component::Version version;
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
    EXPECT_EQ(lines_.back(), std::wstring(kSameReleaseLine) + L" Exiting.");
    EXPECT_THAT(lines_, Contains(L"User does not desktop VLT installed."));
    EXPECT_THAT(lines_, Not(Contains(L"User does not have VLT installed.")));
}

TEST_F(Check, OtherReleaseOfTheStoreEditionIsInstalledFromTheStore)
{
    Driver(L"24.20.1");
    StoreEdition({1, 22, 10, 0});
    EXPECT_EQ(RunFlow(), 0);
    EXPECT_THAT(lines_, Contains(L"Attempting to download and install the UWP version of VLT."));
    EXPECT_THAT(runtime_.Calls(), Contains(L"install 9PQ4XK7ZT2MV"));
    EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Finished installing Tavik Software", 0x10040}));
    EXPECT_TRUE(IsEventGone());
}

// Proves: Another release => handed to the repair with the driver's folder and the five characters; its result is the check's
TEST_F(Check, OtherReleaseOfTheDesktopEditionIsAskedForByTheDriversPrefix)
{
    Driver(L"24.20.11.01-xyz");
    DesktopEdition(L"22.10");
    NothingToDownload();
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, Contains(L"Unable to find dwx2-install.exe at []. Downloading dwx2_install.exe for [24.20] "
                                 L"from web."));
    EXPECT_EQ(lines_.back(), L"Unable to download dwx2_install.exe from web. Exiting.");
    EXPECT_THAT(boxes_.boxes, ElementsAre(BoxRecorder::Box{L"Error downloading Tavik Software", 0x10010}));
}

TEST_F(Check, FolderOfTheActiveDriverIsWhereTheInstallerIsLookedFor)
{
    machine_.Folder().CreateFolder(L"store\\Bin64");
    machine_.Folder().WriteBytes(L"store\\Bin64\\DWX2_Install.exe", "x");
    const std::wstring inf = machine_.Folder().WriteBytes(
        L"store\\display.inf", "[Version]\r\nSignature=\"$WINDOWS NT$\"\r\n[a]\r\nHKR,,ReleaseVersion,,24.20.1\r\n");
    Driver(L"24.20.1");
    devices_.devices.back().packages = {{L"display.inf", inf}};
    DesktopEdition(L"22.10");
    machine_.UnpacksMainPackage();
    EXPECT_EQ(RunFlow(), 0);
    EXPECT_THAT(lines_, Contains(L"\t [Tavik DWX] [24.20.1] [" + (machine_.Folder() / L"store") + L"]"));
    EXPECT_THAT(lines_, Contains(L"Found dwx2-install.exe at [" +
                                 (machine_.Folder() / L"store\\Bin64\\DWX2_Install.exe") + L"]"));
}

// Proves: Same release, forced => logged without "Exiting.", and repaired
TEST_F(Check, ForcedWithTheSameReleaseGoesOnToTheRepair)
{
    Force = true;
    Driver(L"24.20.1");
    DesktopEdition(L"24.20");
    NothingToDownload();
    EXPECT_EQ(RunFlow(), -1);
    EXPECT_THAT(lines_, Contains(kSameReleaseLine));
    EXPECT_EQ(lines_.back(), L"Unable to download dwx2_install.exe from web. Exiting.");
}

// Proves: Neither edition installed, forced => logged; the Store edition is used, compared as 0.0
// Proves: `-FORCE` with neither edition => the Store edition is installed
TEST_F(Check, ForcedWithoutAnyEditionInstallsTheStoreEdition)
{
    Force = true;
    Driver(L"24.20.1");
    Installed(L"24.20");  // not what is compared: that is 0.0
    EXPECT_EQ(RunFlow(), 0);
    EXPECT_THAT(lines_, Contains(L"User does not have VLT installed."));
    EXPECT_THAT(lines_, Not(Contains(kSameReleaseLine)));
    EXPECT_THAT(runtime_.Calls(), Contains(L"install 9PQ4XK7ZT2MV"));
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
}

TEST_F(Check, ForcedStoreEditionIsInstalledOverTheDesktopEdition)
{
    Force = true;
    ForceUwp = true;
    Driver(L"24.20.1");
    DesktopEdition(L"24.20");
    EXPECT_EQ(RunFlow(), 0);
    EXPECT_THAT(lines_, Contains(kSameReleaseLine));
    EXPECT_THAT(runtime_.Calls(), Contains(L"install 9PQ4XK7ZT2MV"));
}

// Proves: `-SILENT` on any of these ways out => no box, no visible window, the log is written
TEST_F(Check, SilentRunsShowNoBoxOnAnyPathButLog)
{
    Silent = true;
    EXPECT_EQ(RunFlow(), -1);
    Driver(L"24.20.1");
    EXPECT_EQ(RunFlow(), -1);
    DesktopEdition(L"24.20");
    EXPECT_EQ(RunFlow(), -1);
    const HANDLE other = CreateEventW(nullptr, TRUE, FALSE, kEventName);
    EXPECT_EQ(RunFlow(), -1);
    CloseHandle(other);
    EXPECT_THAT(boxes_.boxes, IsEmpty());
    EXPECT_THAT(lines_, Contains(L"Unable to find installed Tavik display adapters. Exiting."));
    EXPECT_THAT(lines_, Contains(L"User does not have VLT installed. Exiting."));
    EXPECT_THAT(lines_, Contains(std::wstring(kSameReleaseLine) + L" Exiting."));
    EXPECT_THAT(lines_, Contains(L"Another instance is running. Exiting."));
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
    std::vector<std::string> order;
    std::atomic<int> shown = 0;
    boxes_.onBox = [&] { order.push_back("box"); };
    SUBSTITUTE(CreateDialogParamW)
    dialog([&](HINSTANCE instance, const wchar_t* name, HWND owner, DLGPROC procedure, LPARAM parameter) {
        order.push_back("window");
        return dialog.Original()(instance, name, owner, procedure, parameter);
    });
    SUBSTITUTE(CreateEventW)
    create([&](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        if (name != nullptr)
        {
            order.push_back("guard");
        }
        return create.Original()(security, manual, set, name);
    });
    SUBSTITUTE(ShowWindow)
    show([&](HWND window, int command) {
        shown += command == SW_SHOW ? 1 : 0;
        return show.Original()(window, command);
    });
    SUBSTITUTE(PostThreadMessageW)
    post([&](DWORD thread, UINT message, WPARAM first, LPARAM second) {
        order.push_back(IsEventGone() ? "stop" : "stop while the event was there");
        return post.Original()(thread, message, first, second);
    });
    EXPECT_EQ(RunCompatibilityCheck(), -1);
    const std::vector<std::string> expected = GetParam() ? std::vector<std::string>{"window", "guard", "stop"}
                                                         : std::vector<std::string>{"window", "guard", "box", "stop"};
    EXPECT_EQ(order, expected);
    EXPECT_EQ(shown, GetParam() ? 0 : 2);
}
}  // namespace
}  // namespace repair
