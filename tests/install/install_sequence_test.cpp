#include "install/install_sequence.h"

#include <windows.h>
#include <msi.h>
#include <shlobj.h>

#include <map>

#include "support/error_matcher.h"
#include "support/fake_machine.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/test.h"

IMPORTED(CreateDirectoryW, MsiSetInternalUI, SHChangeNotify, SHGetSpecialFolderPathW)

namespace repair
{
namespace
{
constexpr wchar_t kDvr[] = L"{8E41A6D2-0C9B-4F73-A215-6B7D3E9F0A58}";
constexpr wchar_t kPxl[] = L"{B07F3C95-4D28-4E6A-8B31-9F5A2C7E1D04}";
const std::wstring kRemoval =
    L" | REMOVE=ALL REBOOT=ReallySuppress MSIFASTINSTALL=3 MSIRESTARTMANAGERCONTROL=Disable UPGRADINGPRODUCTCODE=1";
const std::wstring kInstall = L" | REBOOT=ReallySuppress MSIFASTINSTALL=3 LAUNCHED_FROM_MIM=\"1\"";

class InstallSequence : public testing::Test
{
protected:
    std::wstring Main() const { return machine_.ExtractionFolder() + L"\\HL\\halden\\halden64\\dwx-next64.msi"; }
    std::wstring Dvr() const { return machine_.ExtractionFolder() + L"\\HL\\tavikdvr\\tavikdvr64\\tavikdvr64.msi"; }
    std::wstring Pxl() const { return machine_.ExtractionFolder() + L"\\HL\\pxl64\\PXL64.msi"; }

    std::wstring Installation(const std::wstring& package) const { return L"install " + package + kInstall; }
    static std::wstring Removal(const std::wstring& package) { return L"install " + package + kRemoval; }

    // Log lines without those of started programs.
    std::vector<std::wstring> OwnLines() const
    {
        std::vector<std::wstring> lines = log_.Lines();
        std::erase_if(lines, [](const std::wstring& line) { return line.starts_with(L"Process "); });
        return lines;
    }

    MachineRegistry registry_;
    FakeMachine machine_;
    LogCapture log_;
    SUBSTITUTE(MsiSetInternalUI)
    setUi_{[this](INSTALLUILEVEL level, HWND* owner) {
        EXPECT_EQ(std::tuple(level, owner), std::tuple(2, nullptr));
        machine_.steps.push_back(L"no interface");
        return INSTALLUILEVEL_DEFAULT;
    }};
    SUBSTITUTE(SHChangeNotify)
    notify_{[this](LONG event, UINT flags, const void* first, const void* second) {
        EXPECT_EQ(std::tuple(event, flags, first, second), std::tuple(0x08000000, 0u, nullptr, nullptr));
        machine_.steps.push_back(L"notify");
    }};
};

// Proves: Everything is there => no Windows Installer interface, folder, installer, products of the three families asked for, programs stopped, removals, main package, DVR, PXL, shell told; in this order
// Proves: The installer is started => with the extraction folder last and unquoted, even with blanks in it; the folder is the working directory; waited for without limit
TEST_F(InstallSequence, RunsItsStepsInOrder)
{
    machine_.UnpacksMainPackage();
    machine_.products[kHalden] = {L"C:\\h1.msi", L"C:\\h2.msi"};
    machine_.products[kDvr] = {L"C:\\d.msi"};
    machine_.products[kPxl] = {L"C:\\p.msi"};
    const std::wstring folder = machine_.ExtractionFolder();
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\My Files\\dwx2_install.exe"), false), 0);
    std::vector<std::wstring> steps = {
        L"no interface",
        L"run C:\\My Files\\dwx2_install.exe | /NCRC /S -EXTRACTONLY=YES /D=" + folder + L" | " + folder,
        L"wait 4294967295",
        std::wstring(L"related ") + kHalden,
        std::wstring(L"related ") + kDvr,
        std::wstring(L"related ") + kPxl};
    for (const wchar_t* name : {L"hlcmd", L"CorvelSettings", L"Corvelsoftware", L"tavikow", L"TavikLPServ"})
    {
        steps.push_back(std::wstring(L"run C:\\windows\\system32\\taskkill.exe |  /IM \"") + name + L".exe\" /F | -");
        steps.push_back(L"wait 30000");
    }
    for (const wchar_t* product : {L"C:\\h1.msi", L"C:\\h2.msi", L"C:\\d.msi", L"C:\\p.msi"})
    {
        steps.push_back(Removal(product));
    }
    for (const std::wstring& package : {Main(), Dvr(), Pxl()})
    {
        steps.push_back(Installation(package));
    }
    steps.push_back(L"notify");
    EXPECT_THAT(machine_.steps, ElementsAreArray(steps));
}

// Proves: Removals and installs => each has its line and its result; a removal's 3010 stays 3010, an install's becomes 0
// Proves: A removal fails => ignored
TEST_F(InstallSequence, LogsEveryRemovalAndEveryInstallation)
{
    machine_.UnpacksMainPackage();
    machine_.products[kHalden] = {L"C:\\h.msi"};
    machine_.products[kDvr] = {L"C:\\d.msi"};
    machine_.products[kPxl] = {L"C:\\p.msi"};
    machine_.packageResults[L"C:\\h.msi"] = 3010;  // stays as it is: it was only a removal
    machine_.packageResults[L"C:\\d.msi"] = 1605;
    machine_.packageResults[Main()] = 3010;
    machine_.packageResults[Pxl()] = 1619;
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), false), 0);
    EXPECT_THAT(OwnLines(),
                ElementsAre(L"Uninstalling installed Halden C:\\h.msi", L"\tResult = 3010",
                            L"Uninstalling installed DVR C:\\d.msi", L"\tResult = 1605",
                            L"Uninstalling installed PXL C:\\p.msi", L"\tResult = 0", L"Installing " + Main(),
                            L"System reboot may be required for " + Main() + L".", L"\tResult = 0",
                            L"Installing " + Dvr(), L"\tResult = 0", L"Installing " + Pxl(), L"\tResult = 1619"));
}

// Proves: No product, not all components wanted => no removal line, only the main package
// Proves: All components wanted => all three packages
// Proves: DVR installed, PXL not (and the reverse) => only the one that was there comes back
TEST_F(InstallSequence, InstallsTheComponentsThatWereThereOrAllThatAreWanted)
{
    machine_.UnpacksMainPackage();
    // Which products are installed, whether all components are wanted, and the steps: "-" before a removal.
    const std::tuple<std::string, bool, std::vector<std::string>> rows[] = {{"", false, {"H"}},
                                                                            {"", true, {"H", "D", "P"}},
                                                                            {"D", false, {"-D", "H", "D"}},
                                                                            {"P", false, {"-P", "H", "P"}},
                                                                            {"HD", true, {"-H", "-D", "H", "D", "P"}}};
    const std::map<char, const wchar_t*> families = {{'H', kHalden}, {'D', kDvr}, {'P', kPxl}};
    const std::map<std::string, std::wstring> calls = {{"-H", Removal(L"C:\\H")},  {"-D", Removal(L"C:\\D")},
                                                       {"-P", Removal(L"C:\\P")},  {"H", Installation(Main())},
                                                       {"D", Installation(Dvr())}, {"P", Installation(Pxl())}};
    for (const auto& [products, areAllWanted, steps] : rows)
    {
        machine_.EndProcess();
        machine_.products.clear();
        machine_.steps.clear();
        for (const char product : products)
        {
            machine_.products[families.at(product)] = {L"C:\\" + std::wstring(1, static_cast<wchar_t>(product))};
        }
        EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), areAllWanted), 0);
        std::vector<std::wstring> expected;
        for (const std::string& step : steps)
        {
            expected.push_back(calls.at(step));
        }
        EXPECT_EQ(machine_.StepsOf(L"install"), expected);
    }
}

// Proves: The main package is missing afterwards => "Unable to find" is logged, result 2; nothing was stopped or removed
TEST_F(InstallSequence, EndsBeforeAnythingIsStoppedOrRemovedWithoutTheMainPackage)
{
    machine_.Unpacks(L"\\HL\\pxl64\\PXL64.msi");
    machine_.products[kHalden] = {L"C:\\h.msi"};
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), true), 2);
    EXPECT_THAT(machine_.steps, ElementsAre(L"no interface", StartsWith(L"run C:\\i.exe | "), L"wait 4294967295"));
    EXPECT_THAT(OwnLines(), ElementsAre(L"Unable to find " + Main() + L"."));
}

// Proves: The installer cannot be started => its line, then "Unable to find" and result 2
TEST_F(InstallSequence, EndsWithAMissingMainPackageWhenTheInstallerDoesNotStart)
{
    machine_.startErrors[L"C:\\i.exe"] = 5;
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), false), 2);
    EXPECT_THAT(log_.Lines(), ElementsAre(StartsWith(L"Launching process C:\\i.exe /NCRC /S -EXTRACTONLY=YES /D="),
                                          L"Unable to find " + Main() + L"."));
}

// Proves: The main package fails => its code is the result; the other packages are installed nevertheless
TEST_F(InstallSequence, ReturnsTheFailureOfTheMainPackageAndInstallsTheOthers)
{
    machine_.UnpacksMainPackage();
    machine_.packageResults[Main()] = 1603;
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), true), 1603);
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(3));
    EXPECT_THAT(log_.Lines(), Contains(L"\tResult = 1603"));
    EXPECT_EQ(machine_.steps.back(), L"notify");
}

// Proves: The installer reports failure but has unpacked => ignored
// Proves: Another package fails, or was not unpacked => only logged
TEST_F(InstallSequence, PassesOverTheFailureOfTheInstallerAndOfTheOtherPackages)
{
    machine_.UnpacksMainPackage();
    machine_.exitCodes[L"C:\\i.exe"] = 1;
    machine_.packageResults[Dvr()] = 1619;
    machine_.packageResults[Pxl()] = 1603;
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), true), 0);
}

// Proves: The user chose a folder => all packages go there
TEST_F(InstallSequence, InstallsEveryPackageIntoTheUsersOwnFolder)
{
    TemporaryFolder programFiles;
    SUBSTITUTE(SHGetSpecialFolderPathW)
    special([&](HWND, wchar_t* path, int, BOOL) {
        wcscpy(path, programFiles.Path().c_str());
        return TRUE;
    });
    registry_.SetString(L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\", L"InstallDir", L"D:\\My Tavik");
    machine_.UnpacksMainPackage();
    machine_.products[kHalden] = {L"C:\\h.msi"};
    RunInstallSequence(HeldInstaller(L"C:\\i.exe"), true);
    const std::wstring custom = kInstall + L" INSTALLDIR=\"D:\\My Tavik\"";
    EXPECT_THAT(machine_.StepsOf(L"install"), ElementsAre(Removal(L"C:\\h.msi"), L"install " + Main() + custom,
                                                          L"install " + Dvr() + custom, L"install " + Pxl() + custom));
    EXPECT_THAT(log_.Lines(), Contains(L"Using custom install directory D:\\My Tavik").Times(3));
}

TEST_F(InstallSequence, SecuresAndEmptiesTheFolderBeforeTheInstallerRuns)
{
    CreateDirectories(machine_.ExtractionFolder());
    machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload\\LPInstaller\\planted.dll", "x");
    machine_.onRun = [&] {
        EXPECT_FALSE(Exists(machine_.ExtractionFolder() + L"\\planted.dll"));
        EXPECT_TRUE(Exists(machine_.ExtractionFolder() + L"\\~.tmp"));
    };
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), false), 2);
}

// Proves: Another program replaces the folder above the extraction folder => it cannot, from before that is made until the installer has ended; nothing is left in it
TEST_F(InstallSequence, FolderAboveIsHeldFromThePreparationUntilTheInstallerHasEnded)
{
    const std::wstring above = machine_.Temporary() + L"Tavik_VLTInstallerDownload";
    const auto canBeRenamed = [&] {
        return MoveFileW(above.c_str(), (above + L".away").c_str()) != FALSE &&
               MoveFileW((above + L".away").c_str(), above.c_str()) != FALSE;
    };
    const auto keepers = [&] {
        WIN32_FIND_DATAW data = {};
        const HANDLE search = FindFirstFileW((above + L"\\~*.tmp").c_str(), &data);
        return search != INVALID_HANDLE_VALUE && FindClose(search) != FALSE ? 1 : 0;
    };
    std::vector<bool> attempts;
    SUBSTITUTE(CreateDirectoryW)
    create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
        if (security != nullptr)
        {
            attempts.push_back(canBeRenamed());
            EXPECT_EQ(keepers(), 1);  // an empty folder could become a link
        }
        return create.Original()(path, security);
    });
    machine_.onRun = [&] { attempts.push_back(canBeRenamed()); };
    EXPECT_EQ(RunInstallSequence(HeldInstaller(L"C:\\i.exe"), false), 2);
    EXPECT_THAT(attempts, AllOf(testing::SizeIs(testing::Ge(2u)), Each(false)));
    EXPECT_EQ(keepers(), 0);
    machine_.EndProcess();
    EXPECT_TRUE(canBeRenamed());
}

// Proves: Another program tries to replace the installer while it unpacks
TEST_F(InstallSequence, InstallerIsHeldWhileTheOldFolderIsEmptiedAndWhileItRuns)
{
    CreateDirectories(machine_.ExtractionFolder());
    const std::wstring installer = machine_.Folder().WriteBytes(L"setup.exe", "x");
    std::vector<bool> attempts;
    const auto attempt = [&] {
        attempts.push_back(MoveFileW(installer.c_str(), (installer + L".away").c_str()) != FALSE);
    };
    machine_.onRun = attempt;
    {
        SUBSTITUTE(CreateDirectoryW)
        create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
            attempt();
            return create.Original()(path, security);
        });
        EXPECT_EQ(RunInstallSequence(HeldInstaller(installer), false), 2);
    }
    EXPECT_THAT(attempts, AllOf(SizeIs(testing::Ge(2u)), Each(false)));
    machine_.EndProcess();
    attempts.clear();
    HeldInstaller notHeldYet;
    notHeldYet.path = installer;
    EXPECT_EQ(RunInstallSequence(std::move(notHeldYet), false), 2);
    EXPECT_THAT(attempts, ElementsAre(false));
}

// Proves: The installer is inside the extraction folder => it is removed with it, and its start fails
TEST_F(InstallSequence, InstallerInTheExtractionFolderGoesWithIt)
{
    CreateDirectories(machine_.ExtractionFolder() + L"\\deeper");
    const std::wstring installer =
        machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload\\LPInstaller\\deeper\\setup.exe", "x");
    bool wasThere = true;
    machine_.onRun = [&] { wasThere = Exists(installer); };
    EXPECT_EQ(RunInstallSequence(HeldInstaller(installer), false), 2);
    EXPECT_FALSE(wasThere);
}

// Proves: An exception, through the guard => logged with its text, result -1
TEST_F(InstallSequence, GuardTurnsAnExceptionIntoALineAndMinusOne)
{
    machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload", "in the way");
    const std::string error = FileErrorOf([] { RunInstallSequence(HeldInstaller(L"C:\\i.exe"), false); }).what();
    EXPECT_EQ(InstallWithExceptionGuard(HeldInstaller(L"C:\\i.exe")), -1);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"\tException occured during installation. " + std::wstring(error.begin(), error.end())));
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
}

// Proves: The temporary folder has blanks, other letters, more than 260 characters, or is none
TEST_F(InstallSequence, WithoutATemporaryFolderTheInstallerWouldUnpackBelowTheCurrentOne)
{
    SUBSTITUTE(GetTempPathW) temporary([](DWORD, wchar_t*) { return FailWith(ERROR_BUSY, DWORD{0}); });
    SUBSTITUTE(CreateDirectoryW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED); });
    ExpectFileError(FileErrorOf([] { RunInstallSequence(HeldInstaller(L"C:\\i.exe"), false); }), "create_directories",
                    L"Tavik_VLTInstallerDownload", 5);
}

// Proves: An exception that is not a standard one => passes the guard
TEST_F(InstallSequence, GuardLetsOtherExceptionsThrough)
{
    machine_.onRun = [] { throw 5; };
    EXPECT_THROW(InstallWithExceptionGuard(HeldInstaller(L"C:\\i.exe")), int);
    EXPECT_THAT(log_.Lines(), Each(Not(StartsWith(L"\tException"))));
}

// Proves: No exception, through the guard => only what was there is installed, and its result is returned
TEST_F(InstallSequence, GuardInstallsOnlyWhatWasThereAndPassesTheResult)
{
    machine_.UnpacksMainPackage();
    machine_.packageResults[Main()] = 1618;
    EXPECT_EQ(InstallWithExceptionGuard(HeldInstaller(L"C:\\i.exe")), 1618);
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(1));
}
}  // namespace
}  // namespace repair
