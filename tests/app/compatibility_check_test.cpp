#include <atomic>

#include "app/compatibility_check.h"
#include "app/switches.h"
#include "support/app_test.h"

IMPORTED(CreateDialogParamW, CreateEventW, PostThreadMessageW, ShowWindow)

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
            << PrintToString(release.base) << " with " << PrintToString(release.installed);
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
constexpr wchar_t kSameReleaseLine[] =
    L"Currently installed version of VLT is from the same release as the active driver.";
constexpr wchar_t kSameReleaseExit[] =
    L"Currently installed version of VLT is from the same release as the active driver. Exiting.";
const BoxRecorder::Box kNoDriver = {L"Unable to detect active Tavik Display Driver.", 0x10010};
const BoxRecorder::Box kNothingInstalled = {L"There is no Tavik Software application installed.", 0x10040};
const BoxRecorder::Box kCompatible = {
    L"The version of Tavik Software installed is already a compatible version. Please check if the Tavik Display "
    L"Driver is working correctly.",
    0x10040};

// The whole flow without a window, on a machine of the test's own.
class Check : public AppTest
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
    void Driver(const std::wstring& release, const std::wstring& description = L"Tavik DWX")
    {
        devices_.AddAdapter(L"PCI\\VEN_1E7D", release).description = description;
    }

    int RunFlow()
    {
        boxes_.boxes.clear();
        const int result = RunLogged(&RunCompatibilityCheck);
        std::erase_if(lines_, [](const std::wstring& line) {
            return line.starts_with(L"Enumerating ") || line.starts_with(L"Change server");
        });
        const HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, kEventName);
        isEventGone_ = event == nullptr;
        CloseHandle(event);
        return result;
    }
    // Expects an early end: -1, this log line and, unless silent, this box.
    void ExpectExit(const std::wstring& line, const std::vector<BoxRecorder::Box>& boxes = {})
    {
        EXPECT_EQ(RunFlow(), -1);
        EXPECT_EQ(lines_.back(), line);
        EXPECT_EQ(boxes_.boxes, boxes);
    }
    void ExpectStoreInstall()
    {
        EXPECT_EQ(RunFlow(), 0);
        EXPECT_THAT(lines_, Contains(L"Attempting to download and install the UWP version of VLT."));
        EXPECT_THAT(runtime_.Calls(), Contains(L"id \"9PQ4XK7ZT2MV\""));
        EXPECT_THAT(boxes_.boxes, ElementsAre(kFinished));
        EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
        EXPECT_TRUE(isEventGone_);
    }
    void ExpectFailedDownload()
    {
        ServerFolder(L"no address");
        ExpectExit(L"Unable to download dwx2_install.exe from web. Exiting.", {kDownloadFailed});
        EXPECT_THAT(lines_, Contains(L"Unable to find dwx2-install.exe at []. Downloading dwx2_install.exe for [24.20] "
                                     L"from web."));
    }

    // The event of another instance. The caller closes it.
    HANDLE OtherInstance() const { return create_.Original()(nullptr, TRUE, FALSE, kEventName); }

    bool isEventGone_ = false;
    DWORD eventError_ = ERROR_SUCCESS;  // fails the creation of the event
    SUBSTITUTE(CreateEventW)
    create_{[this](SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
        if (name == nullptr)
        {
            return create_.Original()(security, manual, set, name);
        }
        EXPECT_STREQ(name, kEventName);
        EXPECT_EQ(std::tuple(security, manual, set), std::tuple(nullptr, TRUE, FALSE));
        order_.push_back("guard");
        event_ = eventError_ != ERROR_SUCCESS ? FailWith(eventError_, HANDLE{nullptr})
                                              : create_.Original()(security, manual, set, name);
        return event_;
    }};
};

// Own process: the functions of the Windows Runtime are looked up once in a process.
// Proves: Another instance is running => box "Another instance is running." without an icon, result -1, nothing else is done
// Proves: The refused instance ends => it sets and closes the event, and the first one still holds the machine
TEST_F(Check, SecondInstanceSaysSoAndDoesNothingElse)
{
    const HANDLE first = OtherInstance();
    ExpectExit(L"Another instance is running. Exiting.", {{L"Another instance is running.", 0x10000}});
    EXPECT_THAT(lines_, SizeIs(1));
    EXPECT_THAT(devices_.calls, IsEmpty());
    EXPECT_THAT(machine_.steps, IsEmpty());
    EXPECT_THAT(order_, ElementsAre("guard", "box", "signal", "close"));
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);  // signalled all the same
    EXPECT_FALSE(isEventGone_);
    CloseHandle(first);
}

// Proves: The event exists but cannot be opened => the same exit, without an event to set
// Proves: The event cannot be created for another reason => the check goes on without a guard
TEST_F(Check, OnlyAnEventThatExistsStopsARunThatGetsNone)
{
    eventError_ = ERROR_ALREADY_EXISTS;
    ExpectExit(L"Another instance is running. Exiting.", {{L"Another instance is running.", 0x10000}});
    eventError_ = ERROR_ACCESS_DENIED;
    ExpectExit(L"Unable to find installed Tavik display adapters. Exiting.", {kNoDriver});
    EXPECT_THAT(order_, ElementsAre("guard", "box", "guard", "box"));
}

// Proves: The guard is taken => a named event with manual reset, not set
// Proves: Any run => installed version and driver version are logged, then all adapters in their order
// Proves: No adapter of the maker => box "Unable to detect active Tavik Display Driver.", result -1
// Proves: The run ends => the event is set after the box and then closed
TEST_F(Check, WithoutAnAdapterOfTheMakerItExits)
{
    Installed(L"24.20", L"24.20.11.01");
    ExpectExit(L"Unable to find installed Tavik display adapters. Exiting.", {kNoDriver});
    EXPECT_THAT(lines_, ElementsAre(L"Currently installed VLT is version [24.20] from driver version [24.20.11.01]",
                                    L"Currently installed drivers on system:", lines_.back()));
    EXPECT_THAT(order_, ElementsAre("guard", "box", "signal", "close"));
    EXPECT_TRUE(isEventGone_);
}

// Proves: Neither edition installed, not forced => box "There is no Tavik Software application installed.", result -1
TEST_F(Check, WithoutAnyEditionItExits)
{
    Driver(L"24.20.11.01-xyz");
    Installed(L"24.20");  // left behind by an uninstalled edition, so it does not count
    ExpectExit(L"User does not have VLT installed. Exiting.", {kNothingInstalled});
    EXPECT_THAT(lines_,
                ElementsAre(L"Currently installed VLT is version [24.20] from driver version [1.2]",
                            L"Currently installed drivers on system:", L"\t [Tavik DWX] [24.20.11.01-xyz] []",
                            L"User does not desktop VLT installed.", L"UWP version is not installed", lines_.back()));
}

// Proves: Desktop edition installed => its version counts, the Store is not asked
// Proves: Same release, not forced => box that the version is compatible, result -1
// Proves: Several adapters => only the first of the sorted list counts
TEST_F(Check, SameReleaseOfTheDesktopEditionExitsWithoutAskingTheStore)
{
    Driver(L"22.10.1", L"Old");
    Driver(L"24.20.11.01-xyz", L"New");
    DesktopEdition(L"24.20");
    StoreEdition({1, 1, 1, 0});
    ExpectExit(kSameReleaseExit, {kCompatible});
    EXPECT_THAT(lines_, ElementsAre(L"Currently installed VLT is version [24.20] from driver version [1.2]",
                                    L"Currently installed drivers on system:", L"\t [New] [24.20.11.01-xyz] []",
                                    L"\t [Old] [22.10.1] []", lines_.back()));
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
}

// Proves: Only the Store edition installed => second and third number of its version in decimal, without leading zeros, cut to five characters, replace the installed version
TEST_F(Check, StoreEditionIsComparedByItsSecondAndThirdNumberCutToFiveCharacters)
{
    const std::pair<component::PackageVersion, const wchar_t*> versions[] = {
        {{10, 24, 20, 7}, L"24.20"}, {{24, 20, 1, 0}, L"20.1"},     {{1, 24, 5, 0}, L"24.5"},
        {{1, 0, 0, 1}, L"0.0"},      {{1, 24, 20110, 0}, L"24.20"}, {{1, 65535, 65535, 0}, L"65535"}};
    Installed(L"99.99");  // replaced by the Store's
    for (const auto& [version, comparedAs] : versions)
    {
        devices_.devices.clear();
        Driver(comparedAs);
        StoreEdition(version);
        ExpectExit(kSameReleaseExit, {kCompatible});
        EXPECT_THAT(lines_, Contains(L"User does not desktop VLT installed."));
        EXPECT_THAT(lines_, Not(Contains(L"User does not have VLT installed.")));
    }
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

// Proves: Same release, forced => logged without "Exiting.", and repaired
TEST_F(Check, RepairWithoutADriverFolderDownloadsByThePrefixAndForcedTheSameReleaseToo)
{
    Driver(L"24.20.11.01-xyz");
    DesktopEdition(L"22.10");
    ExpectFailedDownload();
    EXPECT_THAT(lines_, Not(Contains(kSameReleaseLine)));
    Force = true;
    DesktopEdition(L"24.20");
    ExpectFailedDownload();
    EXPECT_THAT(lines_, Contains(kSameReleaseLine));
}

// Proves: Neither edition installed, forced => logged; the Store edition is used, compared as 0.0
// Proves: `-FORCE` with neither edition => the Store edition is installed
TEST_F(Check, ForcedWithoutAnyEditionInstallsTheStoreEdition)
{
    Force = true;
    Driver(L"24.20.1");
    Installed(L"24.20");  // ignored: the comparison uses 0.0
    ExpectStoreInstall();
    EXPECT_THAT(lines_, Contains(L"User does not have VLT installed."));
    EXPECT_THAT(lines_, Not(Contains(kSameReleaseLine)));
}

// Proves: `-SILENT` on any of these ways out => no box, no visible window, the log is written
TEST_F(Check, SilentRunsShowNoBoxOnAnyPathButLog)
{
    Silent = true;
    ExpectExit(L"Unable to find installed Tavik display adapters. Exiting.");
    Driver(L"24.20.1");
    ExpectExit(L"User does not have VLT installed. Exiting.");
    DesktopEdition(L"24.20");
    ExpectExit(kSameReleaseExit);
    const HANDLE other = OtherInstance();
    ExpectExit(L"Another instance is running. Exiting.");
    CloseHandle(other);
}

// Proves: The check starts => the status window starts before the guard is taken, is shown unless silent, and is stopped last
TEST_F(Check, WindowStartsBeforeTheGuardIsShownUnlessSilentAndStopsLast)
{
    std::atomic<int> shown = 0;
    SUBSTITUTE(CreateDialogParamW)
    dialog([&](auto... arguments) {
        order_.push_back("window");
        return dialog.Original()(arguments...);
    });
    SUBSTITUTE(ShowWindow)
    show([&](HWND window, int command) {
        shown += command == SW_SHOW ? 1 : 0;
        return show.Original()(window, command);
    });
    SUBSTITUTE(PostThreadMessageW)
    post([&](auto... arguments) {
        order_.push_back("stop");
        return post.Original()(arguments...);
    });
    AppInstance = GetModuleHandleW(nullptr);
    EXPECT_EQ(RunCompatibilityCheck(), -1);
    EXPECT_THAT(std::exchange(order_, {}), ElementsAre("window", "guard", "box", "signal", "close", "stop"));
    EXPECT_EQ(shown, 2);
    Silent = true;
    EXPECT_EQ(RunCompatibilityCheck(), -1);
    EXPECT_THAT(order_, ElementsAre("window", "guard", "signal", "close", "stop"));
    EXPECT_EQ(shown, 2);
}
}  // namespace
}  // namespace repair
