#include <windows.h>
#include <wininet.h>

#include "app/repair_dispatch.h"
#include "app/switches.h"
#include "support/app_test.h"
#include "support/fake_internet.h"

IMPORTED(InternetOpenW, SetDlgItemTextW, ShowWindow)

namespace repair
{
namespace
{
// A run whose status window is a number.
class RepairTest : public AppTest
{
protected:
    RepairTest()
    {
        ServerFolder(L"no address");  // so nothing can be downloaded
        run_.window.instance = reinterpret_cast<HINSTANCE>(0x99);
        run_.window.dialog = reinterpret_cast<HWND>(0x77);
        run_.instanceEvent = EventHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        event_ = run_.instanceEvent.Get();
    }

    // A driver package with an installer; returns its folder.
    std::wstring DriverPackage()
    {
        machine_.Folder().CreateFolder(L"package\\Bin64");
        installer_ = machine_.Folder().WriteBytes(L"package\\Bin64\\DWX2_Install.exe", "x");
        return machine_.Folder() / L"package";
    }
    // The repair for release 24.20.
    int RepairFrom(const std::wstring& driverFolder, bool useStore = false)
    {
        return RunLogged([&] { return Repair(run_, driverFolder, L"24.20", useStore); });
    }
    void ExpectEndWith(const BoxRecorder::Box& box) const
    {
        EXPECT_THAT(boxes_.boxes, ElementsAre(box));
        EXPECT_THAT(order_, ElementsAre("hide", "box", "signal", "close"));
        EXPECT_FALSE(run_.instanceEvent);
    }

    repair::Run run_;  // testing::Test has a Run of its own
    std::wstring installer_;
    std::vector<std::wstring> statusTexts_;
    std::function<void()> onStatus_ = [] {};
    SUBSTITUTE(SetDlgItemTextW)
    setText_{[this](HWND dialog, int control, const wchar_t* text) {
        EXPECT_EQ(std::tuple(dialog, control), std::tuple(reinterpret_cast<HWND>(0x77), 1004));
        statusTexts_.push_back(text);
        WriteLog(L"status " + statusTexts_.back());  // so that the log shows when
        onStatus_();
        return TRUE;
    }};
    SUBSTITUTE(ShowWindow)
    show_{[this](HWND dialog, int command) {
        EXPECT_EQ(std::tuple(dialog, command), std::tuple(reinterpret_cast<HWND>(0x77), 0));
        order_.push_back("hide");
        return TRUE;
    }};
};

// Own process: the functions of the Windows Runtime are looked up once in a process.
// --- Desktop edition
// Proves: The driver package has an installer => logged, not downloaded; the status goes straight to "Installing..."
// Proves: Which components => only those that were installed before
// Proves: The installation succeeds (result 0) => every Store package of the application is removed, then box "Finished installing Tavik Software", result 0
// Proves: Any end => the window is hidden, the box shown, then the event set and closed
TEST_F(RepairTest, InstallerOfTheDriverPackageReplacesBothEditions)
{
    const std::wstring package = DriverPackage();
    machine_.UnpacksMainPackage();
    runtime_.packages = {{kStorePackage, {1, 0, 0, 0}}, {L"TavikSystemsInc-2.8F31D07A2B6E4_1", {2, 0, 0, 0}}};
    std::vector<std::wstring> beforeTheBox;
    boxes_.onBox = [&] {
        order_.push_back("box");
        beforeTheBox = runtime_.Calls();
    };
    EXPECT_EQ(RepairFrom(package), 0);
    ASSERT_GE(lines_.size(), 3u);
    EXPECT_EQ(lines_[0], L"Found dwx2-install.exe at [" + installer_ + L"]");
    EXPECT_EQ(lines_[1], L"status Installing...");
    EXPECT_THAT(lines_[2], StartsWith(L"Process " + installer_));
    EXPECT_THAT(lines_, Each(Not(HasSubstr(L"Downloading"))));
    EXPECT_THAT(statusTexts_, SizeIs(1));
    EXPECT_THAT(machine_.StepsOf(L"run")[0], StartsWith(L"run " + installer_ + L" | /NCRC"));
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(1));
    for (const std::wstring& name : {std::wstring(kStorePackage), std::wstring(L"TavikSystemsInc-2.8F31D07A2B6E4_1")})
    {
        EXPECT_THAT(beforeTheBox, Contains(L"RemovePackageWithOptionsAsync name=\"" + name + L"\"; options=0x80000"));
    }
    ExpectEndWith(kFinished);
}

// Proves: The installation fails (any other result) => box "Error installing Tavik Software.", that result is the exit code, the Store packages stay
TEST_F(RepairTest, FailedInstallationIsShownAndReturnedAndLeavesTheStoreEditionAlone)
{
    const std::wstring package = DriverPackage();
    machine_.UnpacksMainPackage();
    FailTheMainPackage();
    runtime_.packages = {{kStorePackage, {1, 0, 0, 0}}};
    EXPECT_EQ(RepairFrom(package), 1603);
    EXPECT_THAT(runtime_.Calls(), IsEmpty());
    ExpectEndWith(kInstallFailed);
}

using HeldInstallerTest = WithParam<RepairTest, bool>;
INSTANTIATE_TEST_SUITE_P(FoundAndDownloaded, HeldInstallerTest, testing::Bool());

// Proves: Another program tries to replace the installer after it was found or downloaded, before anything is prepared => it cannot; once it has ended, it can
TEST_P(HeldInstallerTest, CannotBeReplacedFromTheDecisionUntilItHasEnded)
{
    FakeInternet internet;
    ServerFolder(L"http://server/vlt/");
    const std::wstring package = GetParam() ? DriverPackage() : L"";
    if (!GetParam())
    {
        installer_ = machine_.Temporary() + L"Tavik_VLTInstallerDownload\\dwx2_install.exe";
    }
    const auto canBeRenamed = [this] {
        return MoveFileW(installer_.c_str(), (installer_ + L".away").c_str()) != FALSE;
    };
    std::vector<bool> attempts;
    onStatus_ = [&] {
        if (statusTexts_.back() == L"Installing...")
        {
            attempts.push_back(canBeRenamed());
        }
    };
    SUBSTITUTE(MsiEnumRelatedProductsW)
    later([&](auto...) { return attempts.push_back(canBeRenamed()), UINT{ERROR_NO_MORE_ITEMS}; });
    machine_.UnpacksMainPackage();
    EXPECT_EQ(RepairFrom(package), 0);
    EXPECT_THAT(attempts, ElementsAre(false, true, false, false));  // moved away by then
}

// Proves: It has none => logged, status "Downloading ...", the five-character release is downloaded, then "Installing..."
TEST_F(RepairTest, WithoutALocalInstallerTheReleaseIsDownloaded)
{
    FakeInternet internet;
    ServerFolder(L"http://server/vlt/");
    machine_.UnpacksMainPackage();
    const std::wstring folder = machine_.Folder().CreateFolder(L"empty");
    EXPECT_EQ(RepairFrom(folder), 0);
    const std::wstring installer = machine_.Temporary() + L"Tavik_VLTInstallerDownload\\dwx2_install.exe";
    ASSERT_GE(lines_.size(), 7u);
    lines_.resize(7);
    EXPECT_THAT(lines_, ElementsAre(L"Unable to find dwx2-install.exe at [" + folder +
                                        L"]. Downloading dwx2_install.exe for [24.20] from web.",
                                    L"status Downloading compatible version of Tavik Software.",
                                    L"Change server to http://server/vlt/.", L"Response code from server: 200",
                                    L"Completed download. Total bytes downloaded: 9", L"status Installing...",
                                    StartsWith(L"Process " + installer)));
    EXPECT_THAT(internet.calls, Contains(L"request /vlt/24.20/dwx2_install.txt"));
    EXPECT_THAT(machine_.StepsOf(L"run")[0], StartsWith(L"run " + installer + L" | /NCRC"));
    EXPECT_THAT(boxes_.boxes, ElementsAre(kFinished));
}

// Proves: The installer is neither found nor downloaded => box "Error downloading Tavik Software", result -1; nothing is stopped or installed
// Proves: The download raises an exception => logged with its text, then as above
TEST_F(RepairTest, ExceptionOfTheDownloadIsLoggedAndCountsAsNoResult)
{
    ServerFolder(L"http://server/");
    SUBSTITUTE(InternetOpenW) open([](auto...) { return FailWith(ERROR_ACCESS_DENIED, HINTERNET{nullptr}); });
    EXPECT_EQ(RepairFrom(L""), -1);
    ASSERT_GE(lines_.size(), 2u);
    EXPECT_THAT(lines_[lines_.size() - 2], StartsWith(L"\tException occured during the download of dwx2_install.exe. "
                                                      L"Unable to open internet connection: "));
    EXPECT_EQ(lines_.back(), L"Unable to download dwx2_install.exe from web. Exiting.");
    EXPECT_THAT(statusTexts_, ElementsAre(L"Downloading compatible version of Tavik Software."));
    EXPECT_THAT(machine_.steps, IsEmpty());
    ExpectEndWith(kDownloadFailed);
}

// Proves: `-SILENT` (repair) => the same without status texts and boxes
TEST_F(RepairTest, SilentRunsShowNothing)
{
    Silent = true;
    const std::wstring package = DriverPackage();
    machine_.UnpacksMainPackage();
    EXPECT_EQ(RepairFrom(package), 0);
    EXPECT_EQ(RepairFrom(L""), -1);
    EXPECT_EQ(RepairFrom(L"", true), 0);
    EXPECT_THAT(lines_, SizeIs(2));
    runtime_.store.state = 5;
    EXPECT_EQ(RepairFrom(L"", true), -1);
    EXPECT_THAT(lines_, SizeIs(2));
    EXPECT_THAT(boxes_.boxes, IsEmpty());
    EXPECT_THAT(statusTexts_, IsEmpty());
    EXPECT_THAT(order_, ElementsAre("signal", "close"));
}

// --- Store edition
// Proves: The Store edition is the one in use => it is installed through the Store, with the status dialog as owner and "Installing..." as status
// Proves: The Store installation succeeds => logged, box "Finished installing Tavik Software", result 0
TEST_F(RepairTest, StoreEditionInUseIsInstalledFromTheStoreWithTheDialogAsOwner)
{
    runtime_.onCall = [](const std::wstring& call) {
        if (call.starts_with(L"GetDefault"))
        {
            WriteLog(L"the Store is asked");
        }
    };
    EXPECT_EQ(RepairFrom(DriverPackage(), true), 0);
    EXPECT_THAT(lines_,
                ElementsAre(L"status Installing...", L"Attempting to download and install the UWP version of VLT.",
                            L"the Store is asked", L"Successfully installed the UWP version of VLT"));
    EXPECT_THAT(runtime_.Calls(),
                AllOf(Contains(L"Initialize hwnd=0x77; window=no; title=\"\""), Contains(L"id \"9PQ4XK7ZT2MV\"")));
    EXPECT_THAT(machine_.steps, IsEmpty());
    ExpectEndWith(kFinished);
}

// Proves: There is no status window (repair) => the Store is asked all the same, no status is set
TEST_F(RepairTest, WithoutAWindowTheStoreIsAskedAllTheSame)
{
    run_.window.instance = nullptr;
    EXPECT_EQ(RepairFrom(L"", true), 0);
    EXPECT_THAT(statusTexts_, IsEmpty());
    EXPECT_THAT(boxes_.boxes, ElementsAre(kFinished));
}
}  // namespace
}  // namespace repair
