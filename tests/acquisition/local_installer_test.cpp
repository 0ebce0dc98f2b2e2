#include "acquisition/local_installer.h"

#include "support/error_matcher.h"
#include "support/log_capture.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(FindNextFileW, GetFileAttributesW)

namespace repair
{
namespace
{
class LocalInstaller : public testing::Test
{
protected:
    // A folder if the name ends in a backslash, otherwise a file; with all folders above it.
    void Create(const std::wstring& name) const
    {
        const size_t end = name.rfind(L'\\');
        if (end != std::wstring::npos)
        {
            folder_.CreateFolder(name.substr(0, end));
        }
        if (end + 1 != name.size())
        {
            folder_.WriteBytes(name, "x");
        }
    }

    TemporaryFolder folder_;
};

// What is in the folder, which path is tried as the installer's (empty: none), and whether it is found.
struct Layout
{
    std::vector<std::wstring> content;
    std::wstring tried;
    bool isFound;
};

using LocalInstallerIn = WithParam<LocalInstaller, Layout>;

// Proves: A subfolder begins with B or b => the installer's path in it
// Proves: Two such folders (Bin64 before B384125) => only the file system's first one is tried, even when it has no installer
// Proves: Only a file begins with B => not found
// Proves: No such folder, or the installer lies elsewhere => not found
// Proves: A folder has the installer's name => its path comes back: only existence counts
// Proves: The file's name in other letter case => found
// Proves: The folder's path ends in a separator => none is added
TEST_P(LocalInstallerIn, TheFirstSubfolderThatBeginsWithBIsFound)
{
    for (const std::wstring& name : GetParam().content)
    {
        Create(name);
    }
    const std::wstring tried = GetParam().tried.empty() ? L"" : folder_ / GetParam().tried;
    const LogCapture log;
    for (const std::wstring& folder : {folder_.Path(), folder_.Path() + L"\\"})
    {
        EXPECT_EQ(FindInstallerInFolder(folder).wstring(), tried);
        EXPECT_EQ(FindLocalInstaller(folder), GetParam().isFound ? tried : L"");
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, LocalInstallerIn,
    testing::Values(
        Layout{{L"A\\DWX2_Install.exe", L"B384125\\DWX2_Install.exe", L"C\\"}, L"B384125\\DWX2_Install.exe", true},
        Layout{{L"bonus\\DWX2_Install.exe"}, L"bonus\\DWX2_Install.exe", true},
        Layout{{L"b\\"}, L"b\\DWX2_Install.exe", false},
        Layout{{L"B1\\", L"B2\\DWX2_Install.exe"}, L"B1\\DWX2_Install.exe", false},
        Layout{{L"B384125"}, L"", false},                                       // a file
        Layout{{L"A\\B1\\DWX2_Install.exe", L"DWX2_Install.exe"}, L"", false},  // too deep, not deep enough
        Layout{{}, L"", false}, Layout{{L"B1\\DWX2_Install.exe\\"}, L"B1\\DWX2_Install.exe", true},
        Layout{{L"B1\\dwx2_install.EXE"}, L"B1\\DWX2_Install.exe", true}));

// Proves: The driver has no matching package (empty folder) => not found, whatever the current directory is
TEST_F(LocalInstaller, IsNotSearchedInTheCurrentDirectory)
{
    Create(L"B1\\DWX2_Install.exe");
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    SetCurrentDirectoryW(folder_.Path().c_str());
    EXPECT_TRUE(FindInstallerInFolder(L"").empty());
    EXPECT_EQ(FindLocalInstaller(L""), L"");
    SetCurrentDirectoryW(before);
}

// Proves: The folder cannot be listed => file-system error "directory_iterator", nothing is logged
// Proves: The listing breaks off
// Proves: The installer's existence cannot be tested => file-system error "exists"
TEST_F(LocalInstaller, FolderThatCannotBeListedOrExistenceThatCannotBeTestedThrows)
{
    const LogCapture log;
    ExpectFileError(FileErrorOf([&] { FindLocalInstaller(folder_ / L"missing"); }),
                    "directory_iterator::directory_iterator", folder_ / L"missing", 3);
    {
        SUBSTITUTE(FindNextFileW) next([](auto...) { return FailWith(ERROR_DEV_NOT_EXIST); });
        ExpectFileError(FileErrorOf([&] { FindLocalInstaller(folder_.Path()); }), "directory_iterator::operator++",
                        folder_.Path(), 55);
    }
    Create(L"B1\\DWX2_Install.exe");
    const std::wstring installer = folder_ / L"B1\\DWX2_Install.exe";
    SUBSTITUTE(GetFileAttributesW)
    attributes([&](const wchar_t* path) {
        return path == installer ? FailWith(ERROR_ACCESS_DENIED, INVALID_FILE_ATTRIBUTES) : attributes.Original()(path);
    });
    ExpectFileError(FileErrorOf([&] { FindLocalInstaller(folder_.Path()); }), "exists", installer, 5);
    EXPECT_THAT(log.Lines(), IsEmpty());
}
}  // namespace
}  // namespace repair
