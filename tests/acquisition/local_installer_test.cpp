#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "acquisition/local_installer.h"
#include "support/error_matcher.h"
#include "support/folder_link.h"
#include "support/log_capture.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(FindClose)
IMPORTED(FindFirstFileW)
IMPORTED(FindNextFileW)
IMPORTED(GetFileAttributesW)

namespace repair
{
namespace
{
// Proves: A subfolder begins with B or b => the installer's path in it
TEST(LocalInstaller, StandsInTheSubfolderThatBeginsWithB)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"A");
    folder.CreateFolder(L"B384125");
    folder.CreateFolder(L"C");
    const std::wstring installer = folder.WriteBytes(L"B384125\\DWX2_Install.exe", "x");
    folder.WriteBytes(L"A\\DWX2_Install.exe", "x");
    LogCapture log;
    EXPECT_EQ(FindInstallerInFolder(folder.Path()).wstring(), installer);
    EXPECT_EQ(FindLocalInstaller(folder.Path()), installer);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(LocalInstaller, FolderNameOfALowerCaseLetterCountsAndNothingElseOfItMatters)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"bonus");
    const std::wstring installer = folder.WriteBytes(L"bonus\\DWX2_Install.exe", "x");
    EXPECT_EQ(FindLocalInstaller(folder.Path()), installer);
}

TEST(LocalInstaller, FolderOfOneLetter)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"b");
    EXPECT_EQ(FindInstallerInFolder(folder.Path()).wstring(), folder / L"b\\DWX2_Install.exe");
}

// Proves: Two such folders (Bin64 before B384125) => only the file system's first one is tried, even when it has no installer
TEST(LocalInstaller, OnlyTheFirstSuchFolderIsTried)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"B1");
    folder.CreateFolder(L"B2");
    folder.WriteBytes(L"B2\\DWX2_Install.exe", "x");
    EXPECT_EQ(FindInstallerInFolder(folder.Path()).wstring(), folder / L"B1\\DWX2_Install.exe");
    EXPECT_EQ(FindLocalInstaller(folder.Path()), L"");
}

TEST(LocalInstaller, FirstIsTheFileSystemsFirstNotTheAlphabets)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"Bin64");
    folder.CreateFolder(L"B384125");
    folder.WriteBytes(L"B384125\\DWX2_Install.exe", "x");
    const auto give = [](WIN32_FIND_DATAW* data, const std::wstring& name) {
        *data = {};
        data->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
        name.copy(data->cFileName, name.size());
    };
    int entry = 0;
    SUBSTITUTE(FindFirstFileW)
    first([&](const wchar_t*, WIN32_FIND_DATAW* data) {
        give(data, L"Bin64");
        return reinterpret_cast<HANDLE>(&entry);
    });
    SUBSTITUTE(FindNextFileW)
    next([&](HANDLE, WIN32_FIND_DATAW* data) {
        give(data, L"B384125");
        return ++entry == 1 ? TRUE : FailWith(ERROR_NO_MORE_FILES);
    });
    SUBSTITUTE(FindClose) close([](HANDLE) { return TRUE; });
    EXPECT_EQ(FindInstallerInFolder(folder.Path()).wstring(), folder / L"Bin64\\DWX2_Install.exe");
    entry = 0;
    EXPECT_EQ(FindLocalInstaller(folder.Path()), L"");
}

// Proves: Only a file begins with B => not found
TEST(LocalInstaller, FileThatBeginsWithBIsNoSubfolder)
{
    const TemporaryFolder folder;
    folder.WriteBytes(L"B384125", "a file");
    EXPECT_TRUE(FindInstallerInFolder(folder.Path()).empty());
    EXPECT_EQ(FindLocalInstaller(folder.Path()), L"");
}

TEST(LocalInstaller, FoldersBelowAreNotSearched)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"A\\B1");
    folder.WriteBytes(L"A\\B1\\DWX2_Install.exe", "x");
    folder.WriteBytes(L"DWX2_Install.exe", "x");
    EXPECT_TRUE(FindInstallerInFolder(folder.Path()).empty());
    EXPECT_EQ(FindLocalInstaller(folder.Path()), L"");
}

// Proves: No such folder, or the installer lies elsewhere => not found
TEST(LocalInstaller, EmptyFolderHasNone)
{
    const TemporaryFolder folder;
    EXPECT_EQ(FindLocalInstaller(folder.Path()), L"");
}

// Proves: A folder has the installer's name => its path comes back: only existence counts
TEST(LocalInstaller, OnlyExistenceIsTestedSoAFolderOfThatNameIsReturned)
{
    const TemporaryFolder folder;
    const std::wstring installer = folder.CreateFolder(L"B1\\DWX2_Install.exe");
    EXPECT_EQ(FindLocalInstaller(folder.Path()), installer);
}

// Proves: The file's name in other letter case => found
TEST(LocalInstaller, FileNameInOtherLettersIsFoundByTheFileSystem)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"B1");
    folder.WriteBytes(L"B1\\dwx2_install.EXE", "x");
    EXPECT_EQ(FindLocalInstaller(folder.Path()), folder / L"B1\\DWX2_Install.exe");
}

// Proves: The folder's path ends in a separator => none is added
TEST(LocalInstaller, FolderThatEndsInASeparator)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"B1");
    folder.WriteBytes(L"B1\\DWX2_Install.exe", "x");
    EXPECT_EQ(FindLocalInstaller(folder.Path() + L"\\"), folder / L"B1\\DWX2_Install.exe");
}

// Proves: A link to a folder => counts as a folder; a link to nothing does not
TEST(LocalInstaller, LinkToAFolderCounts)
{
    const TemporaryFolder folder;
    const TemporaryFolder elsewhere;
    elsewhere.WriteBytes(L"DWX2_Install.exe", "x");
    const FolderLink link(folder / L"B1", elsewhere.Path());
    if (!link.IsThere())
    {
        GTEST_SKIP() << "no link can be made here";
    }
    EXPECT_EQ(FindLocalInstaller(folder.Path()), folder / L"B1\\DWX2_Install.exe");
}

// Proves: The driver has no matching package (empty folder) => not found, wherever the process stands
TEST(LocalInstaller, WithoutAFolderThereIsNoneWhereverTheProcessStands)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"B1");
    folder.WriteBytes(L"B1\\DWX2_Install.exe", "x");
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    SetCurrentDirectoryW(folder.Path().c_str());
    EXPECT_TRUE(FindInstallerInFolder(L"").empty());
    EXPECT_EQ(FindLocalInstaller(L""), L"");
    SetCurrentDirectoryW(before);
}

// Proves: The folder cannot be listed => file-system error "directory_iterator", nothing is logged
TEST(LocalInstaller, FolderThatCannotBeListedRaisesTheErrorAndLogsNothing)
{
    const TemporaryFolder folder;
    const std::wstring missing = folder / L"missing";
    LogCapture log;
    ExpectFileError(FileErrorOf([&] { FindLocalInstaller(missing); }), "directory_iterator::directory_iterator",
                    missing, 3);
    EXPECT_TRUE(log.Lines().empty());
}

// Proves: The installer's existence cannot be tested => file-system error "exists"
TEST(LocalInstaller, InstallerThatCannotBeLookedAtRaisesTheError)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"B1");
    const std::wstring installer = folder.WriteBytes(L"B1\\DWX2_Install.exe", "x");
    SUBSTITUTE(GetFileAttributesW)
    look([&](const wchar_t* path) {
        return path == installer ? FailWith(ERROR_ACCESS_DENIED, INVALID_FILE_ATTRIBUTES) : look.Original()(path);
    });
    ExpectFileError(FileErrorOf([&] { FindLocalInstaller(folder.Path()); }), "exists", installer, 5);
}
}  // namespace
}  // namespace repair
