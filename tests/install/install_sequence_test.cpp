#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "install/install_sequence.h"
#include "support/fake_machine.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

IMPORTED(CreateDirectoryW)
IMPORTED(SHGetSpecialFolderPathW)

namespace repair
{
namespace
{
constexpr wchar_t kHalden[] = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";
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

    // Log lines without those of started programs.
    static std::vector<std::wstring> OwnLines(const LogCapture& log)
    {
        std::vector<std::wstring> lines;
        for (const std::wstring& line : log.Lines())
        {
            if (!line.starts_with(L"Process "))
            {
                lines.push_back(line);
            }
        }
        return lines;
    }

    MachineRegistry registry_;
    FakeMachine machine_;
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
    const std::wstring kill = L"run C:\\windows\\system32\\taskkill.exe |  /IM ";
    EXPECT_EQ(RunInstallSequence(L"C:\\My Files\\dwx2_install.exe", false), 0);
    EXPECT_THAT(machine_.steps,
                testing::ElementsAreArray(std::vector<std::wstring>{
                    L"ui 2",
                    // No quotes around the folder although it may contain blanks; it is the working directory too.
                    L"run C:\\My Files\\dwx2_install.exe | /NCRC /S -EXTRACTONLY=YES /D=" + folder + L" | " + folder,
                    L"wait 4294967295",
                    std::wstring(L"related ") + kHalden,
                    std::wstring(L"related ") + kDvr,
                    std::wstring(L"related ") + kPxl,
                    kill + L"\"hlcmd.exe\" /F | -",
                    L"wait 30000",
                    kill + L"\"CorvelSettings.exe\" /F | -",
                    L"wait 30000",
                    kill + L"\"Corvelsoftware.exe\" /F | -",
                    L"wait 30000",
                    kill + L"\"tavikow.exe\" /F | -",
                    L"wait 30000",
                    kill + L"\"TavikLPServ.exe\" /F | -",
                    L"wait 30000",
                    L"install C:\\h1.msi" + kRemoval,
                    L"install C:\\h2.msi" + kRemoval,
                    L"install C:\\d.msi" + kRemoval,
                    L"install C:\\p.msi" + kRemoval,
                    L"install " + Main() + kInstall,
                    L"install " + Dvr() + kInstall,
                    L"install " + Pxl() + kInstall,
                    L"notify 08000000 0",
                }));
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
    LogCapture log;
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", false), 0);
    EXPECT_THAT(OwnLines(log),
                ElementsAre(L"Uninstalling installed Halden C:\\h.msi", L"\tResult = 3010",
                            L"Uninstalling installed DVR C:\\d.msi", L"\tResult = 1605",
                            L"Uninstalling installed PXL C:\\p.msi", L"\tResult = 0", L"Installing " + Main(),
                            L"System reboot may be required for " + Main() + L".", L"\tResult = 0",
                            L"Installing " + Dvr(), L"\tResult = 0", L"Installing " + Pxl(), L"\tResult = 1619"));
}

// Proves: No product, not all components wanted => no removal line, only the main package
TEST_F(InstallSequence, WithoutProductsOnlyTheMainPackageIsInstalledAndNothingRemoved)
{
    machine_.UnpacksMainPackage();
    LogCapture log;
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", false), 0);
    EXPECT_THAT(machine_.StepsOf(L"install"), ElementsAre(L"install " + Main() + kInstall));
    EXPECT_THAT(OwnLines(log), ElementsAre(L"Installing " + Main(), L"\tResult = 0"));
}

// Proves: All components wanted => all three packages
TEST_F(InstallSequence, AllComponentsWhenTheCallerWantsThem)
{
    machine_.UnpacksMainPackage();
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", true), 0);
    EXPECT_THAT(
        machine_.StepsOf(L"install"),
        ElementsAre(L"install " + Main() + kInstall, L"install " + Dvr() + kInstall, L"install " + Pxl() + kInstall));
}

// Proves: DVR installed, PXL not (and the reverse) => only the one that was there comes back
TEST_F(InstallSequence, DvrPackageComesBackWhereItWas)
{
    machine_.UnpacksMainPackage();
    machine_.products[kDvr] = {L"C:\\d.msi"};
    RunInstallSequence(L"C:\\i.exe", false);
    EXPECT_THAT(
        machine_.StepsOf(L"install"),
        ElementsAre(L"install C:\\d.msi" + kRemoval, L"install " + Main() + kInstall, L"install " + Dvr() + kInstall));
}

TEST_F(InstallSequence, PxlPackageComesBackWhereItWas)
{
    machine_.UnpacksMainPackage();
    machine_.products[kPxl] = {L"C:\\p.msi"};
    RunInstallSequence(L"C:\\i.exe", false);
    EXPECT_THAT(
        machine_.StepsOf(L"install"),
        ElementsAre(L"install C:\\p.msi" + kRemoval, L"install " + Main() + kInstall, L"install " + Pxl() + kInstall));
}

// Proves: The main package is missing afterwards => "Unable to find" is logged, result 2; nothing was stopped or removed
TEST_F(InstallSequence, MissingMainPackageEndsItBeforeAnythingIsStoppedOrRemoved)
{
    machine_.Unpacks(L"\\HL\\pxl64\\PXL64.msi");
    machine_.products[kHalden] = {L"C:\\h.msi"};
    LogCapture log;
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", true), 2);
    EXPECT_THAT(machine_.steps, ElementsAre(L"ui 2", StartsWith(L"run C:\\i.exe | "), L"wait 4294967295"));
    EXPECT_THAT(OwnLines(log), ElementsAre(L"Unable to find " + Main() + L"."));
}

// Proves: The installer cannot be started => its line, then "Unable to find" and result 2
TEST_F(InstallSequence, InstallerThatDoesNotStartShowsAsAMissingMainPackage)
{
    machine_.startErrors[L"C:\\i.exe"] = 5;
    LogCapture log;
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", false), 2);
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith(L"Launching process C:\\i.exe /NCRC /S -EXTRACTONLY=YES /D="),
                                         L"Unable to find " + Main() + L"."));
}

// Proves: The installer reports failure but has unpacked => not minded
TEST_F(InstallSequence, InstallerThatReportsFailureButUnpackedIsNotMinded)
{
    machine_.UnpacksMainPackage();
    machine_.exitCodes[L"C:\\i.exe"] = 1;
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", false), 0);
}

// Proves: The main package fails => its code is the result; the other packages are installed all the same
TEST_F(InstallSequence, FailureOfTheMainPackageIsTheResultAndTheOthersAreInstalledAllTheSame)
{
    machine_.UnpacksMainPackage();
    machine_.packageResults[Main()] = 1603;
    LogCapture log;
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", true), 1603);
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(3));
    EXPECT_THAT(log.Lines(), Contains(L"\tResult = 1603"));
    EXPECT_EQ(machine_.steps.back(), L"notify 08000000 0");
}

// Proves: Another package fails, or was not unpacked => only logged
TEST_F(InstallSequence, FailureOfAnotherPackageIsOnlyLogged)
{
    machine_.UnpacksMainPackage();
    machine_.packageResults[Dvr()] = 1619;
    machine_.packageResults[Pxl()] = 1603;
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", true), 0);
}

// Proves: The user had a folder of their own => all packages go there
TEST_F(InstallSequence, EveryPackageGoesIntoTheUsersOwnFolder)
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
    LogCapture log;
    RunInstallSequence(L"C:\\i.exe", true);
    const std::wstring custom = kInstall + L" INSTALLDIR=\"D:\\My Tavik\"";
    EXPECT_THAT(machine_.StepsOf(L"install"),
                ElementsAre(L"install C:\\h.msi" + kRemoval, L"install " + Main() + custom,
                            L"install " + Dvr() + custom, L"install " + Pxl() + custom));
    EXPECT_THAT(log.Lines(), Contains(L"Using custom install directory D:\\My Tavik").Times(3));
}

TEST_F(InstallSequence, FolderThatCannotBeSecuredIsNotMinded)
{
    machine_.UnpacksMainPackage();
    SUBSTITUTE(CreateDirectoryW)
    create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
        return security != nullptr ? FailWith(5) : create.Original()(path, security);
    });
    EXPECT_EQ(RunInstallSequence(L"C:\\i.exe", false), 0);
}

TEST_F(InstallSequence, FolderIsSecuredBeforeTheInstallerRunsAndWhatWasInItIsGone)
{
    CreateDirectories(machine_.ExtractionFolder());
    machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload\\LPInstaller\\planted.dll", "x");
    bool oldFileThere = true;
    bool markerThere = false;
    machine_.onRun = [&] {
        oldFileThere = Exists(machine_.ExtractionFolder() + L"\\planted.dll");
        markerThere = Exists(machine_.ExtractionFolder() + L"\\~.tmp");
        machine_.onRun = [] {};
    };
    RunInstallSequence(L"C:\\i.exe", false);
    EXPECT_FALSE(oldFileThere);
    EXPECT_TRUE(markerThere);
}

TEST_F(InstallSequence, ParentsThatCannotBeCreatedAreThrownBeforeAnythingRuns)
{
    machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload", "in the way");
    EXPECT_THROW(RunInstallSequence(L"C:\\i.exe", false), std::filesystem::filesystem_error);
    EXPECT_THAT(machine_.StepsOf(L"run"), IsEmpty());
}

// Proves: An exception, through the guard => logged with its text, result -1
TEST_F(InstallSequence, GuardTurnsAnExceptionIntoALineAndMinusOne)
{
    machine_.Folder().WriteBytes(L"Tavik_VLTInstallerDownload", "in the way");
    std::wstring message;
    try
    {
        RunInstallSequence(L"C:\\i.exe", false);
    }
    catch (const std::exception& error)
    {
        const std::string narrow = error.what();
        message.assign(narrow.begin(), narrow.end());
    }
    ASSERT_FALSE(message.empty());
    LogCapture log;
    EXPECT_EQ(InstallWithExceptionGuard(L"C:\\i.exe"), -1);
    EXPECT_THAT(log.Lines(), ElementsAre(L"\tException occured during installation. " + message));
}

// Proves: Something else than a standard exception => passes the guard
TEST_F(InstallSequence, GuardLetsOtherExceptionsThrough)
{
    machine_.onRun = [] { throw 5; };
    LogCapture log;
    EXPECT_THROW(InstallWithExceptionGuard(L"C:\\i.exe"), int);
    EXPECT_THAT(log.Lines(), Each(Not(StartsWith(L"\tException"))));
}

// Proves: The guard => installs only what was there, passes the result on
TEST_F(InstallSequence, GuardInstallsOnlyWhatWasThereAndPassesTheResult)
{
    machine_.UnpacksMainPackage();
    machine_.packageResults[Main()] = 1618;
    EXPECT_EQ(InstallWithExceptionGuard(L"C:\\i.exe"), 1618);
    EXPECT_THAT(machine_.StepsOf(L"install"), SizeIs(1));
}
}  // namespace
}  // namespace repair
