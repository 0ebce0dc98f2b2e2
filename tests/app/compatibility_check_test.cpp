#include <atomic>

#include "app/compatibility_check.h"
#include "app/edition.h"
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
    void Driver(const std::wstring& release) { devices_.AddAdapter(L"PCI\\VEN_1E7D", release); }

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

// Proves: Neither edition installed, forced => logged; the Store edition is used, compared as 0.0
TEST_F(Check, ForcedWithoutAnyEditionInstallsTheStoreEdition)
{
    Force = true;
    Driver(L"24.20.1");
    Installed(L"24.20");  // ignored: the comparison uses 0.0
    EXPECT_EQ(RunFlow(), 0);
    EXPECT_THAT(lines_, Contains(L"User does not have VLT installed."));
    EXPECT_THAT(lines_, Not(Contains(kSameReleaseLine)));
    EXPECT_THAT(runtime_.Calls(), Contains(L"id \"9PQ4XK7ZT2MV\""));
    EXPECT_THAT(boxes_.boxes, ElementsAre(kFinished));
}

// Proves: `-SILENT` on any of these ways out => no box, no visible window, the log is written
TEST_F(Check, SilentRunsShowNoBoxOnAnyPathButLog)
{
    Silent = true;
    ExpectExit(L"Unable to find installed Tavik display adapters. Exiting.");
    Driver(L"24.20.1");
    Installed(L"24.20");  // left behind by an uninstalled edition, so it does not count
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
