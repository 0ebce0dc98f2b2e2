#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <system_error>
#include <vector>

#include "base/files.h"
#include "support/error_matcher.h"
#include "support/real_windows.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(CreateDirectoryW)
IMPORTED(GetFileAttributesW)

using testing::ElementsAre;

namespace repair
{
namespace
{
bool IsFolder(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

TEST(ThrowFileError, NamesOperationPathAndWin32Code)
{
    const auto error = FileErrorOf([] { ThrowFileError("some_operation", L"C:\\a b\\\u00e9", 0x80070005); });
    EXPECT_EQ(error.code().value(), -2147024891);
    EXPECT_EQ(error.code().category(), std::system_category());
    EXPECT_EQ(error.path1().wstring(), L"C:\\a b\\\u00e9");
    EXPECT_TRUE(error.path2().empty());
    EXPECT_EQ(std::string(error.what()), "filesystem error: some_operation: " +
                                             std::system_category().message(-2147024891) + " [C:\\a b\\\xc3\xa9]");
}

// Proves: Folders are created => all missing parents, existing ones are fine, beyond the classic path limit too
TEST(CreateDirectories, CreatesAllMissingParents)
{
    const TemporaryFolder folder;
    CreateDirectories(folder / L"a\\b\\c");
    EXPECT_TRUE(IsFolder(folder / L"a\\b\\c"));
    CreateDirectories(folder / L"a\\b\\d");
    EXPECT_TRUE(IsFolder(folder / L"a\\b\\d"));
}

TEST(CreateDirectories, ExistingFolderIsFine)
{
    const TemporaryFolder folder;
    CreateDirectories(folder.Path());
    CreateDirectories(folder.Path() + L"\\");
    CreateDirectories(L"C:\\");
    EXPECT_TRUE(IsFolder(folder.Path()));
}

TEST(CreateDirectories, SeparatorsOfBothKindsAlsoAtTheEndAndDoubled)
{
    const TemporaryFolder folder;
    CreateDirectories(folder / L"a\\b\\");
    EXPECT_TRUE(IsFolder(folder / L"a\\b"));
    CreateDirectories(folder / L"c/d//");
    EXPECT_TRUE(IsFolder(folder / L"c\\d"));
    CreateDirectories(folder / L"e\\\\f/\\g");
    EXPECT_TRUE(IsFolder(folder / L"e\\f\\g"));
}

TEST(CreateDirectories, RelativePath)
{
    const TemporaryFolder folder;
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    SetCurrentDirectoryW(folder.Path().c_str());
    CreateDirectories(L"a\\b");
    CreateDirectories(L"c");
    SetCurrentDirectoryW(before);
    EXPECT_TRUE(IsFolder(folder / L"a\\b"));
    EXPECT_TRUE(IsFolder(folder / L"c"));
}

TEST(CreateDirectories, NestingDeeperThanTheClassicPathLimit)
{
    ONLY_ON_WINE("paths of more than 260 characters are refused without a prefix");
    const TemporaryFolder folder;
    std::wstring path = folder.Path();
    for (int level = 0; level < 60; ++level)
    {
        path += L"\\deeper";
    }
    ASSERT_GT(path.size(), 400u);
    CreateDirectories(path);
    EXPECT_TRUE(IsFolder(path));
}

TEST(CreateDirectories, OnlyWhatIsMissingIsCreatedOutermostFirst)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"a");
    std::vector<std::wstring> created;
    {
        SUBSTITUTE(CreateDirectoryW)
        create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
            EXPECT_EQ(security, nullptr);
            created.push_back(path);
            return create.Original()(path, security);
        });
        CreateDirectories(folder / L"a\\b\\c\\");
    }
    EXPECT_THAT(created, ElementsAre(folder / L"a\\b", folder / L"a\\b\\c"));
}

// What stands in the way, relative to the test's folder unless it has a drive or is empty.
struct Obstacle
{
    std::wstring path;
    int code;
};

class CreateDirectoriesFails : public testing::TestWithParam<Obstacle>
{
};

// Proves: Creating fails => an error that names operation, path and the system's code
TEST_P(CreateDirectoriesFails, WithTheWin32CodeAndThePathAsGiven)
{
    const TemporaryFolder folder;
    folder.WriteBytes(L"file", "x");
    std::wstring path = GetParam().path;
    if (!path.empty() && path.find(L':') == std::wstring::npos)
    {
        path = folder / path;
    }
    ExpectFileError(FileErrorOf([&] { CreateDirectories(path); }), "create_directories", path, GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(All, CreateDirectoriesFails,
                         testing::Values(Obstacle{L"file", 183}, Obstacle{L"file\\", 183},
                                         Obstacle{L"new\\..\\file", 183}, Obstacle{L"bad<name", 123},
                                         Obstacle{L"new\\bad|name\\below", 123}, Obstacle{L"", 3}));

TEST(CreateDirectories, BelowAFileItIsTheFileThatFails)
{
    const TemporaryFolder folder;
    const std::wstring path = folder.WriteBytes(L"file", "x") + L"\\a\\b";
    ExpectFileError(FileErrorOf([&] { CreateDirectories(path); }), "create_directories", path, 183);
}

TEST(CreateDirectories, CodeOfTheSystemIsPassedOnUnchanged)
{
    SUBSTITUTE(GetFileAttributesW)
    attributes([](const wchar_t*) { return FailWith(ERROR_PATH_NOT_FOUND, INVALID_FILE_ATTRIBUTES); });
    for (const int code : {5, 3, 112, 1392})
    {
        SUBSTITUTE(CreateDirectoryW) create([&](auto...) { return FailWith(static_cast<DWORD>(code)); });
        ExpectFileError(FileErrorOf([] { CreateDirectories(L"C:\\a\\b"); }), "create_directories", L"C:\\a\\b", code);
    }
}

TEST(CreateDirectories, FolderThatAnotherProcessMadeMeanwhileIsFine)
{
    const TemporaryFolder folder;
    {
        SUBSTITUTE(CreateDirectoryW)
        create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
            create.Original()(path, security);
            return FailWith(ERROR_ALREADY_EXISTS);
        });
        CreateDirectories(folder / L"a\\b");
    }
    EXPECT_TRUE(IsFolder(folder / L"a\\b"));
}
}  // namespace
}  // namespace repair
