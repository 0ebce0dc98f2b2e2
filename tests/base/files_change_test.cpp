#include <system_error>

#include "base/files.h"
#include "base/handles.h"
#include "support/error_matcher.h"
#include "support/real_windows.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(CreateDirectoryW, DeleteFileW, FindClose, FindFirstFileW, FindNextFileW, GetFileAttributesW, RemoveDirectoryW)

namespace repair
{
namespace
{
bool IsThere(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool IsFolder(const std::wstring& path)
{
    return IsThere(path) && (GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

FileHandle Open(const std::wstring& path, DWORD share)
{
    FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(static_cast<bool>(file));
    return file;
}

TEST(ThrowFileError, NamesOperationPathAndWin32Code)
{
    const auto error = FileErrorOf([] { ThrowFileError("some_operation", L"C:\\a b\\\u00e9", 0x80070005); });
    EXPECT_EQ(error.code(), std::error_code(-2147024891, std::system_category()));
    EXPECT_EQ(error.path1().wstring(), L"C:\\a b\\\u00e9");
    EXPECT_TRUE(error.path2().empty());
    EXPECT_EQ(std::string(error.what()), "filesystem error: some_operation: " +
                                             std::system_category().message(-2147024891) + " [C:\\a b\\\xc3\xa9]");
}

// Proves: Folders are created => all missing parents, existing ones are fine, beyond the classic path limit too
TEST(CreateDirectories, CreatesAllMissingParents)
{
    const TemporaryFolder folder;
    CreateDirectories(folder.Path());
    CreateDirectories(folder.Path() + L"\\");
    CreateDirectories(L"C:\\");
    for (const auto& [asked, created] : {std::pair(L"a\\b\\c", L"a\\b\\c"), std::pair(L"a\\b\\d\\", L"a\\b\\d"),
                                         std::pair(L"c/d//", L"c\\d"), std::pair(L"e\\\\f/\\g", L"e\\f\\g")})
    {
        CreateDirectories(folder / asked);
        EXPECT_TRUE(IsFolder(folder / created)) << PrintToString(std::wstring(asked));
    }
}

TEST(CreateDirectories, RelativePath)
{
    const TemporaryFolder folder;
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    SetCurrentDirectoryW(folder.Path().c_str());
    CreateDirectories(L"a\\b");
    SetCurrentDirectoryW(before);
    EXPECT_TRUE(IsFolder(folder / L"a\\b"));
}

TEST(CreateDirectories, OnlyMissingFoldersAreCreatedOutermostFirst)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"a");
    const RECORD(CreateDirectoryW) created;
    CreateDirectories(folder / L"a\\b\\c\\");
    EXPECT_THAT(created.Calls(),
                ElementsAre(std::tuple(folder / L"a\\b", nullptr), std::tuple(folder / L"a\\b\\c", nullptr)));
}

// Proves: Creating fails => an error that names operation, path and the system's code
TEST(CreateDirectories, FailsWithTheWin32CodeAndThePathAsGiven)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    for (const auto& [path, code] :
         {std::pair(file, 183), std::pair(file + L"\\", 183), std::pair(file + L"\\a\\b", 183),
          std::pair(folder / L"new\\..\\file", 183), std::pair(folder / L"bad<name", 123),
          std::pair(folder / L"new\\bad|name\\below", 123), std::pair(std::wstring(), 3)})
    {
        const std::wstring& asked = path;
        ExpectFileError(FileErrorOf([&] { CreateDirectories(asked); }), "create_directories", path, code);
    }
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

// Proves: A file is removed => absence is no error; write-protected and locked files are
TEST(RemoveFileIfPresent, RemovesAFileOrAnEmptyFolder)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    const std::wstring empty = folder.CreateFolder(L"empty");
    RemoveFileIfPresent(file);
    RemoveFileIfPresent(empty);
    EXPECT_FALSE(IsThere(file));
    EXPECT_FALSE(IsThere(empty));
}

TEST(Removal, AbsenceIsNoError)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    for (const std::wstring& path : {folder / L"missing", folder / L"missing\\below", file + L"\\below",
                                     folder / L"bad<name", std::wstring(L"Q:\\missing"), std::wstring()})
    {
        EXPECT_NO_THROW(RemoveFileIfPresent(path)) << PrintToString(path);
        EXPECT_NO_THROW(RemoveAll(path)) << PrintToString(path);
    }
    EXPECT_TRUE(IsThere(file));
}

TEST(RemoveFileIfPresent, FullFolderReadOnlyFileAndLockedFileStayAndAreErrors)
{
    const TemporaryFolder folder;
    const std::wstring full = folder.CreateFolder(L"full");
    const std::wstring readOnly = folder.WriteBytes(L"full\\read-only", "x");
    const std::wstring locked = folder.WriteBytes(L"locked", "x");
    SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_READONLY);
    const FileHandle lock = Open(locked, 0);
    for (const auto& [path, code] : {std::pair(full, 145), std::pair(readOnly, 5), std::pair(locked, 32)})
    {
        const std::wstring& asked = path;
        ExpectFileError(FileErrorOf([&] { RemoveFileIfPresent(asked); }), "remove", path, code);
        EXPECT_TRUE(IsThere(path));
    }
    SetFileAttributesW(readOnly.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST(RemoveFileIfPresent, AbsenceIsNoErrorAndEveryOtherCodeIs)
{
    DWORD code = 0;
    SUBSTITUTE(DeleteFileW) remove([&](const wchar_t*) { return FailWith(code); });
    for (const DWORD absence : {2u, 3u, 123u})
    {
        code = absence;
        EXPECT_NO_THROW(RemoveFileIfPresent(L"C:\\some file")) << code;
    }
    for (const DWORD error : {5u, 19u, 32u, 303u, 1117u})
    {
        code = error;
        ExpectFileError(FileErrorOf([] { RemoveFileIfPresent(L"C:\\some file"); }), "remove", L"C:\\some file",
                        static_cast<int>(code));
    }
}

// Proves: A tree is removed => whole; what cannot be removed is named
TEST(RemoveAll, RemovesAFileOrATree)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    RemoveAll(file);
    EXPECT_FALSE(IsThere(file));
    for (const wchar_t* name : {L"tree\\a\\b", L"tree\\empty", L"tree\\...x", L"other\\a"})
    {
        folder.CreateFolder(name);
    }
    for (const wchar_t* name : {L"tree\\one", L"tree\\.hidden", L"tree\\..two", L"tree\\a\\b\\three", L"tree2"})
    {
        folder.WriteBytes(name, "x");
    }
    SetFileAttributesW((folder / L"tree\\one").c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    RemoveAll(folder / L"tree");
    RemoveAll(folder / L"other\\");
    EXPECT_FALSE(IsThere(folder / L"tree"));
    EXPECT_FALSE(IsThere(folder / L"other"));
    EXPECT_TRUE(IsThere(folder / L"tree2"));
}

TEST(RemoveAll, PathWhoseAttributesCannotBeReadIsAnError)
{
    SUBSTITUTE(GetFileAttributesW)
    attributes([](const wchar_t*) { return FailWith(ERROR_ACCESS_DENIED, INVALID_FILE_ATTRIBUTES); });
    ExpectFileError(FileErrorOf([] { RemoveAll(L"C:\\x"); }), "remove_all", L"C:\\x", 5);
}

TEST(RemoveAll, FileInsideThatCannotBeRemovedIsNamedAndEarlierRemovalsStay)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"tree");
    const std::wstring before = folder.WriteBytes(L"tree\\a", "x");
    const std::wstring after = folder.WriteBytes(L"tree\\z", "x");
    const std::wstring file = folder.WriteBytes(L"tree\\m", "x");
    const auto expectError = [&](int code) {
        const auto error = FileErrorOf([&] { RemoveAll(folder / L"tree"); });
        ExpectFileError(error, "remove_all", folder / L"tree", code);
        EXPECT_EQ(error.path2().wstring(), file);
        EXPECT_TRUE(IsThere(file));
    };
    {
        const FileHandle lock = Open(file, 0);
        expectError(32);
        EXPECT_EQ(IsThere(before) + IsThere(after), 1);  // one of them, in the order of the file system
    }
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    expectError(5);
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST(RemoveAll, FileThatIsDeletedButStillOpenElsewhereIsAnErrorInsteadOfAnEndlessLoop)
{
    ONLY_ON_WINE("since Windows 10 1903 such a file is gone at once");
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    const std::wstring file = folder.WriteBytes(L"tree\\file", "x");
    const FileHandle open = Open(file, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    int attempts = 0;
    SUBSTITUTE(DeleteFileW) remove([&](const wchar_t* path) { return ++attempts, remove.Original()(path); });
    const auto error = FileErrorOf([&] { RemoveAll(tree); });
    ExpectFileError(error, "remove_all", tree, 145);
    EXPECT_EQ(error.path2().wstring(), tree);
    EXPECT_EQ(attempts, 1);
}

TEST(RemoveAll, EntriesThatVanishMeanwhileAreFine)
{
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    folder.CreateFolder(L"tree\\inner");
    folder.WriteBytes(L"tree\\file", "x");
    {
        SUBSTITUTE(DeleteFileW)
        removeFile([&](const wchar_t* path) {
            removeFile.Original()(path);
            return FailWith(ERROR_FILE_NOT_FOUND);
        });
        SUBSTITUTE(RemoveDirectoryW)
        removeFolder([&](const wchar_t* path) {
            removeFolder.Original()(path);
            return FailWith(ERROR_PATH_NOT_FOUND);
        });
        EXPECT_NO_THROW(RemoveAll(tree));
    }
    EXPECT_FALSE(IsThere(tree));
}

TEST(RemoveAll, FolderThatCannotBeListedFailsAsNotEmpty)
{
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    folder.WriteBytes(L"tree\\file", "x");
    SUBSTITUTE(FindFirstFileW) find([](auto...) { return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE); });
    ExpectFileError(FileErrorOf([&] { RemoveAll(tree); }), "remove_all", tree, 145);
}

TEST(RemoveAll, NoSearchIsOpenDuringARemoval)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"tree\\a");
    folder.WriteBytes(L"tree\\a\\file", "x");
    int open = 0;
    int removals = 0;
    {
        SUBSTITUTE(FindFirstFileW)
        first([&](const wchar_t* pattern, WIN32_FIND_DATAW* data) { return ++open, first.Original()(pattern, data); });
        SUBSTITUTE(FindClose) close([&](HANDLE search) { return --open, close.Original()(search); });
        const auto count = [&] {
            EXPECT_EQ(open, 0);
            ++removals;
        };
        SUBSTITUTE(DeleteFileW) removeFile([&](const wchar_t* path) { return count(), removeFile.Original()(path); });
        SUBSTITUTE(RemoveDirectoryW)
        removeFolder([&](const wchar_t* path) { return count(), removeFolder.Original()(path); });
        RemoveAll(folder / L"tree");
    }
    EXPECT_EQ(removals, 3);
}

TEST(FileChanges, WorkFarBeyondTheClassicPathLimit)
{
    ONLY_ON_WINE("paths of more than 260 characters are refused without a prefix");
    const TemporaryFolder folder;
    std::wstring path = folder / L"tree";
    for (int level = 0; level < 150; ++level)
    {
        path += L"\\deeper";
    }
    CreateDirectories(path);
    EXPECT_TRUE(IsFolder(path));
    EXPECT_TRUE(Exists(path));
    EXPECT_FALSE(Exists(path + L"x"));
    EXPECT_EQ(FindSubfolder(path.substr(0, path.rfind(L'\\')), [](auto&) { return true; }).wstring(), path);
    for (const wchar_t* name : {L"\\one", L"\\two"})
    {
        CloseHandle(CreateFileW((path + name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
        EXPECT_TRUE(IsThere(path + name));
    }
    RemoveFileIfPresent(path + L"\\one");
    EXPECT_FALSE(IsThere(path + L"\\one"));
    RemoveAll(folder / L"tree");
    EXPECT_FALSE(IsThere(folder / L"tree"));
}

// Proves: The old folder holds links, deep trees, files that vanish meanwhile => links are removed and not entered, everything else goes
TEST(RemoveAll, LinksAreRemovedThemselvesAndNotEntered)
{
    DWORD top = FILE_ATTRIBUTE_DIRECTORY;
    DWORD below = 0;
    std::vector<std::wstring> calls;
    SUBSTITUTE(GetFileAttributesW) attributes([&](const wchar_t*) { return top; });
    SUBSTITUTE(FindFirstFileW)
    first([&](const wchar_t* pattern, WIN32_FIND_DATAW* data) {
        calls.push_back(std::wstring(L"list ") + pattern);
        *data = {};
        data->dwFileAttributes = below;
        std::wstring(L"entry").copy(data->cFileName, MAX_PATH);
        return HANDLE{&calls};
    });
    SUBSTITUTE(FindNextFileW) next([](auto...) { return FailWith(ERROR_NO_MORE_FILES); });
    SUBSTITUTE(FindClose) close([](HANDLE) { return TRUE; });
    SUBSTITUTE(DeleteFileW)
    removeFile([&](const wchar_t* path) { return calls.push_back(std::wstring(L"file ") + path), TRUE; });
    SUBSTITUTE(RemoveDirectoryW)
    removeFolder([&](const wchar_t* path) { return calls.push_back(std::wstring(L"folder ") + path), TRUE; });

    below = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    RemoveAll(L"C:\\t");
    EXPECT_THAT(std::exchange(calls, {}), ElementsAre(L"list C:\\t\\*", L"folder C:\\t\\entry", L"folder C:\\t"));
    below = FILE_ATTRIBUTE_REPARSE_POINT;
    RemoveAll(L"C:\\t");
    EXPECT_THAT(std::exchange(calls, {}), ElementsAre(L"list C:\\t\\*", L"file C:\\t\\entry", L"folder C:\\t"));
    top = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    RemoveAll(L"C:\\link");
    EXPECT_THAT(calls, ElementsAre(L"folder C:\\link"));
}
}  // namespace
}  // namespace repair
