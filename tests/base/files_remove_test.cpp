#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "base/files.h"
#include "base/handles.h"
#include "support/error_matcher.h"
#include "support/real_windows.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(DeleteFileW)
IMPORTED(FindClose)
IMPORTED(FindFirstFileW)
IMPORTED(FindNextFileW)
IMPORTED(GetFileAttributesW)
IMPORTED(RemoveDirectoryW)

using testing::ElementsAre;

namespace repair
{
namespace
{
bool IsThere(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

FileHandle Open(const std::wstring& path, DWORD share)
{
    FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(static_cast<bool>(file));
    return file;
}

// A file that cannot be deleted as long as the object lives.
class ReadOnlyFile
{
public:
    explicit ReadOnlyFile(std::wstring path) : path_(std::move(path))
    {
        SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_READONLY);
    }
    ~ReadOnlyFile() { SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_NORMAL); }
    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;
    ReadOnlyFile(ReadOnlyFile&&) = delete;
    ReadOnlyFile& operator=(ReadOnlyFile&&) = delete;

private:
    std::wstring path_;
};

// Proves: A file is removed => absence is no error; write-protected and locked files are
TEST(RemoveFileIfPresent, RemovesAFile)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    RemoveFileIfPresent(file);
    EXPECT_FALSE(IsThere(file));
}

TEST(RemoveFileIfPresent, RemovesAnEmptyFolder)
{
    const TemporaryFolder folder;
    const std::wstring empty = folder.CreateFolder(L"empty");
    RemoveFileIfPresent(empty);
    EXPECT_FALSE(IsThere(empty));
}

TEST(RemoveFileIfPresent, WhatIsAbsentIsNoError)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    EXPECT_NO_THROW(RemoveFileIfPresent(folder / L"missing"));
    EXPECT_NO_THROW(RemoveFileIfPresent(folder / L"missing\\below"));
    EXPECT_NO_THROW(RemoveFileIfPresent(file + L"\\below"));
    EXPECT_NO_THROW(RemoveFileIfPresent(folder / L"bad<name"));
    EXPECT_NO_THROW(RemoveFileIfPresent(L"Q:\\missing"));
    EXPECT_NO_THROW(RemoveFileIfPresent(L""));
    EXPECT_TRUE(IsThere(file));
}

TEST(RemoveFileIfPresent, FolderWithContentIsNotEmpty)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"full");
    const std::wstring file = folder.WriteBytes(L"full\\file", "x");
    ExpectFileError(FileErrorOf([&] { RemoveFileIfPresent(folder / L"full"); }), "remove", folder / L"full", 145);
    EXPECT_TRUE(IsThere(file));
}

TEST(RemoveFileIfPresent, ReadOnlyFileIsDeniedAndStays)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    const ReadOnlyFile protection(file);
    ExpectFileError(FileErrorOf([&] { RemoveFileIfPresent(file); }), "remove", file, 5);
    EXPECT_TRUE(IsThere(file));
}

TEST(RemoveFileIfPresent, LockedFileIsASharingViolationAndStays)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    const FileHandle lock = Open(file, 0);
    ExpectFileError(FileErrorOf([&] { RemoveFileIfPresent(file); }), "remove", file, 32);
    EXPECT_TRUE(IsThere(file));
}

TEST(RemoveFileIfPresent, FileBeyondTheClassicPathLimit)
{
    ONLY_ON_WINE("paths of more than 260 characters are refused without a prefix");
    const TemporaryFolder folder;
    const std::wstring name(200, L'n');
    folder.CreateFolder(name);
    const std::wstring file = folder.WriteBytes(name + L"\\" + name, "x");
    RemoveFileIfPresent(file);
    EXPECT_FALSE(IsThere(file));
}

// The codes that mean "absent", and others.
struct DeletionCode
{
    DWORD code;
    bool isAbsence;
};

class RemoveFileCode : public testing::TestWithParam<DeletionCode>
{
};

TEST_P(RemoveFileCode, AbsenceIsNoErrorEverythingElseIs)
{
    SUBSTITUTE(DeleteFileW) remove([](const wchar_t*) { return FailWith(GetParam().code); });
    if (GetParam().isAbsence)
    {
        EXPECT_NO_THROW(RemoveFileIfPresent(L"C:\\some file"));
    }
    else
    {
        ExpectFileError(FileErrorOf([] { RemoveFileIfPresent(L"C:\\some file"); }), "remove", L"C:\\some file",
                        static_cast<int>(GetParam().code));
    }
}

INSTANTIATE_TEST_SUITE_P(All, RemoveFileCode,
                         testing::Values(DeletionCode{2, true}, DeletionCode{3, true}, DeletionCode{123, true},
                                         DeletionCode{5, false}, DeletionCode{32, false}, DeletionCode{19, false},
                                         DeletionCode{1117, false}, DeletionCode{303, false}));

// Proves: A tree is removed => whole; what cannot be removed is named
TEST(RemoveAll, RemovesAFileOrATree)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    RemoveAll(file);
    EXPECT_FALSE(IsThere(file));
    folder.CreateFolder(L"tree\\a\\b");
    folder.CreateFolder(L"tree\\empty");
    folder.CreateFolder(L"tree\\...x");
    folder.WriteBytes(L"tree\\one", "1");
    folder.WriteBytes(L"tree\\.hidden", "2");
    folder.WriteBytes(L"tree\\..two", "3");
    folder.WriteBytes(L"tree\\a\\b\\three", "4");
    SetFileAttributesW((folder / L"tree\\one").c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    const std::wstring neighbour = folder.WriteBytes(L"tree2", "5");
    RemoveAll(folder / L"tree");
    EXPECT_FALSE(IsThere(folder / L"tree"));
    EXPECT_TRUE(IsThere(neighbour));
}

TEST(RemoveAll, TrailingSeparatorIsFine)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"tree\\a");
    RemoveAll(folder / L"tree\\");
    EXPECT_FALSE(IsThere(folder / L"tree"));
}

TEST(RemoveAll, WhatIsAbsentIsNoError)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    EXPECT_NO_THROW(RemoveAll(folder / L"missing"));
    EXPECT_NO_THROW(RemoveAll(folder / L"missing\\below"));
    EXPECT_NO_THROW(RemoveAll(file + L"\\below"));
    EXPECT_NO_THROW(RemoveAll(folder / L"bad<name"));
    EXPECT_NO_THROW(RemoveAll(L"Q:\\missing"));
    EXPECT_NO_THROW(RemoveAll(L""));
    EXPECT_TRUE(IsThere(file));
}

TEST(RemoveAll, PathThatCannotBeLookedAtIsAnError)
{
    SUBSTITUTE(GetFileAttributesW)
    attributes([](const wchar_t*) { return FailWith(ERROR_ACCESS_DENIED, INVALID_FILE_ATTRIBUTES); });
    ExpectFileError(FileErrorOf([] { RemoveAll(L"C:\\x"); }), "remove_all", L"C:\\x", 5);
}

TEST(RemoveAll, ReadOnlyFileInsideIsNamedAsTheSecondPath)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"tree\\a");
    const std::wstring file = folder.WriteBytes(L"tree\\a\\file", "x");
    const ReadOnlyFile protection(file);
    const auto error = FileErrorOf([&] { RemoveAll(folder / L"tree"); });
    ExpectFileError(error, "remove_all", folder / L"tree", 5);
    EXPECT_EQ(error.path2().wstring(), file);
    EXPECT_TRUE(IsThere(file));
}

TEST(RemoveAll, LockedFileInsideIsNamedAndWhatWasRemovedBeforeStaysRemoved)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"tree");
    std::vector<std::wstring> others;
    for (const wchar_t* name : {L"tree\\a", L"tree\\z"})
    {
        others.push_back(folder.WriteBytes(name, "x"));
    }
    const std::wstring file = folder.WriteBytes(L"tree\\m", "x");
    const FileHandle lock = Open(file, 0);
    const auto error = FileErrorOf([&] { RemoveAll(folder / L"tree"); });
    ExpectFileError(error, "remove_all", folder / L"tree", 32);
    EXPECT_EQ(error.path2().wstring(), file);
    EXPECT_TRUE(IsThere(file));
    EXPECT_EQ(IsThere(others[0]) + IsThere(others[1]), 1);  // one side of it, whichever is first
}

TEST(RemoveAll, FileThatIsDeletedButStillOpenElsewhereIsAnErrorInsteadOfAnEndlessLoop)
{
    ONLY_ON_WINE("since Windows 10 1903 such a file is gone at once");
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    const std::wstring file = folder.WriteBytes(L"tree\\file", "x");
    const FileHandle open = Open(file, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    int attempts = 0;
    SUBSTITUTE(DeleteFileW)
    remove([&](const wchar_t* path) {
        ++attempts;
        return remove.Original()(path);
    });
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
    const auto error = FileErrorOf([&] { RemoveAll(tree); });
    ExpectFileError(error, "remove_all", tree, 145);
}

TEST(RemoveAll, NoSearchIsOpenWhileSomethingIsRemoved)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"tree\\a");
    folder.WriteBytes(L"tree\\a\\file", "x");
    int open = 0;
    int removals = 0;
    {
        SUBSTITUTE(FindFirstFileW)
        first([&](const wchar_t* pattern, WIN32_FIND_DATAW* data) {
            ++open;
            return first.Original()(pattern, data);
        });
        SUBSTITUTE(FindClose)
        close([&](HANDLE search) {
            --open;
            return close.Original()(search);
        });
        const auto count = [&] {
            EXPECT_EQ(open, 0);
            ++removals;
        };
        SUBSTITUTE(DeleteFileW)
        removeFile([&](const wchar_t* path) {
            count();
            return removeFile.Original()(path);
        });
        SUBSTITUTE(RemoveDirectoryW)
        removeFolder([&](const wchar_t* path) {
            count();
            return removeFolder.Original()(path);
        });
        RemoveAll(folder / L"tree");
    }
    EXPECT_EQ(removals, 3);
}

TEST(RemoveAll, TreeDeeperAndLongerThanTheClassicPathLimit)
{
    ONLY_ON_WINE("paths of more than 260 characters are refused without a prefix");
    const TemporaryFolder folder;
    std::wstring path = folder / L"tree";
    for (int level = 0; level < 150; ++level)
    {
        path += L"\\deeper";
    }
    CreateDirectories(path);
    ASSERT_GT(path.size(), 1000u);
    const HANDLE file = CreateFileW((path + L"\\file").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    CloseHandle(file);
    RemoveAll(folder / L"tree");
    EXPECT_FALSE(IsThere(folder / L"tree"));
}

// A made-up file system: a folder with one entry that carries the attributes given.
struct MadeUpTree
{
    explicit MadeUpTree(DWORD entryAttributes) : attributes(entryAttributes) {}

    DWORD attributes;
    std::vector<std::wstring> calls;
    SUBSTITUTE(GetFileAttributesW)
    look{[](const wchar_t*) { return DWORD{FILE_ATTRIBUTE_DIRECTORY}; }};
    SUBSTITUTE(FindFirstFileW)
    first{[this](const wchar_t* pattern, WIN32_FIND_DATAW* data) {
        calls.push_back(std::wstring(L"list ") + pattern);
        data->dwFileAttributes = attributes;
        std::wstring(L"entry").copy(data->cFileName, 6);
        data->cFileName[5] = L'\0';
        return reinterpret_cast<HANDLE>(this);
    }};
    SUBSTITUTE(FindNextFileW)
    next{[](auto...) { return FailWith(ERROR_NO_MORE_FILES); }};
    SUBSTITUTE(FindClose)
    close{[](HANDLE) { return TRUE; }};
    SUBSTITUTE(DeleteFileW)
    removeFile{[this](const wchar_t* path) {
        calls.push_back(std::wstring(L"file ") + path);
        return TRUE;
    }};
    SUBSTITUTE(RemoveDirectoryW)
    removeFolder{[this](const wchar_t* path) {
        calls.push_back(std::wstring(L"folder ") + path);
        return TRUE;
    }};
};

// Proves: The old folder holds links, deep trees, files that vanish meanwhile => links are removed and not entered, everything else goes
TEST(RemoveAll, LinkToAFolderInsideIsRemovedItselfAndNotEntered)
{
    MadeUpTree tree(FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    RemoveAll(L"C:\\t");
    EXPECT_THAT(tree.calls, ElementsAre(L"list C:\\t\\*", L"folder C:\\t\\entry", L"folder C:\\t"));
}

TEST(RemoveAll, LinkToAFileInsideIsRemovedAsAFile)
{
    MadeUpTree tree(FILE_ATTRIBUTE_REPARSE_POINT);
    RemoveAll(L"C:\\t");
    EXPECT_THAT(tree.calls, ElementsAre(L"list C:\\t\\*", L"file C:\\t\\entry", L"folder C:\\t"));
}

TEST(RemoveAll, PathThatIsALinkItselfIsNotEntered)
{
    MadeUpTree tree(0);
    SUBSTITUTE(GetFileAttributesW)
    look([](const wchar_t*) { return DWORD{FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT}; });
    RemoveAll(L"C:\\link");
    EXPECT_THAT(tree.calls, ElementsAre(L"folder C:\\link"));
}
}  // namespace
}  // namespace repair
