#include <cstddef>
#include <cstring>
#include <map>
#include <optional>
#include <system_error>

#include "base/files.h"
#include "base/handles.h"
#include "support/error_matcher.h"
#include "support/folder_link.h"
#include "support/real_windows.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(CloseHandle, CreateDirectoryW, CreateFileW, DeleteFileW, GetFileAttributesW, GetFileInformationByHandleEx,
         GetFileInformationByHandle, RemoveDirectoryW, SetFileInformationByHandle, Sleep)

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
    const RECORD(CreateFileW) opened;
    CreateDirectories(folder / L"a\\b\\c\\");
    EXPECT_THAT(created.Calls(),
                ElementsAre(std::tuple(folder / L"a\\b", nullptr), std::tuple(folder / L"a\\b\\c", nullptr)));
    EXPECT_THAT(opened.Calls(), testing::IsEmpty());  // only links are opened
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

class LinkInTheWay : public testing::Test
{
protected:
    // What a folder's name leads to: "a" is a link.
    const TemporaryFolder folder_;
    DWORD target_ = ERROR_SUCCESS;  // why it cannot be opened
    std::vector<std::wstring> removed_;
    bool isLink_ = true;

    LinkInTheWay() { folder_.CreateFolder(L"a"); }

    SUBSTITUTE(GetFileAttributesW)
    attributes_{[this](const wchar_t* path) {
        const DWORD real = attributes_.Original()(path);
        return isLink_ && path == folder_ / L"a" ? real | FILE_ATTRIBUTE_REPARSE_POINT : real;
    }};
    SUBSTITUTE(CreateFileW)
    open_{[this](const wchar_t* path, auto... more) {
        return target_ == ERROR_SUCCESS ? open_.Original()(path, more...) : FailWith(target_, INVALID_HANDLE_VALUE);
    }};
    SUBSTITUTE(RemoveDirectoryW)
    remove_{[this](const wchar_t* path) {
        removed_.push_back(path);
        isLink_ = false;
        return remove_.Original()(path);
    }};
};

// Proves: The folder, or one above it, is a link that leads nowhere => a folder takes its place, and the log is written there
TEST_F(LinkInTheWay, IsReplacedByAFolderIfItsTargetWasRemoved)
{
    target_ = ERROR_FILE_NOT_FOUND;
    CreateDirectories(folder_ / L"a");
    EXPECT_THAT(removed_, ElementsAre(folder_ / L"a"));
    EXPECT_TRUE(IsFolder(folder_ / L"a"));
    isLink_ = true;
    CreateDirectories(folder_ / L"a\\b");
    EXPECT_TRUE(IsFolder(folder_ / L"a\\b"));
    EXPECT_EQ(removed_.size(), 2u);
}

TEST_F(LinkInTheWay, StaysIfItsTargetExistsOrOnlyCannotBeReached)
{
    for (const DWORD code : {0u, 3u, 5u, 21u, 53u, 1231u})
    {
        target_ = code;
        CreateDirectories(folder_ / L"a");
    }
    EXPECT_THAT(removed_, testing::IsEmpty());
}

// Proves: A file is removed => a missing one is no error; a write-protected or locked one is
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
    const FileHandle lock = Open(file, 0);
    const auto error = FileErrorOf([&] { RemoveAll(folder / L"tree"); });
    ExpectFileError(error, "remove_all", folder / L"tree", 32);
    EXPECT_EQ(error.path2().wstring(), file);
    EXPECT_TRUE(IsThere(file));
    EXPECT_EQ(IsThere(before) + IsThere(after), 1);  // one of them, in the order of the file system
}

// Proves: An old file or folder is write-protected => it is removed like any other
TEST(RemoveAll, RemovesWriteProtectedFilesAndFolders)
{
    const TemporaryFolder folder;
    for (const DWORD attribute : {0x1u, 0x80u})  // write-protected, normal
    {
        folder.CreateFolder(L"tree\\sub");
        folder.WriteBytes(L"tree\\sub\\file", "x");
        const auto set = [&](const wchar_t* name, DWORD rights, DWORD share) {
            SetFileAttributesW((folder / name).c_str(), attribute);
            // Wine has no write-protected folders. What is write-protected is opened for changing its attributes.
            const bool isProtected = (GetFileAttributesW((folder / name).c_str()) & FILE_ATTRIBUTE_READONLY) != 0;
            const DWORD more = isProtected ? DWORD{FILE_WRITE_ATTRIBUTES} : 0;
            return std::tuple(folder / name, rights | more, share, nullptr, 3u, 0x02200000u, nullptr);
        };
        const auto file = set(L"tree\\sub\\file", 0x10080, 7);
        const auto inner = set(L"tree\\sub", 0x110081, 3);
        const auto tree = set(L"tree", 0x110081, 3);
        const RECORD(CreateFileW) opened;
        RemoveAll(folder / L"tree");
        EXPECT_THAT(opened.Calls(), ElementsAre(tree, inner, file));
        EXPECT_FALSE(IsThere(folder / L"tree"));
    }
}

TEST(RemoveAll, FileThatIsDeletedButStillOpenElsewhereIsAnErrorInsteadOfAnEndlessLoop)
{
    ONLY_ON_WINE("since Windows 10 1903 such a file is gone at once");
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    const std::wstring file = folder.WriteBytes(L"tree\\file", "x");
    const FileHandle open = Open(file, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    int attempts = 0;
    SUBSTITUTE(SetFileInformationByHandle)
    set([&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        attempts += kind == FileDispositionInfo ? 1 : 0;
        return kind == FileDispositionInfo ? set.Original()(object, kind, data, bytes)
                                           : FailWith(ERROR_INVALID_PARAMETER);
    });
    const auto error = FileErrorOf([&] { RemoveAll(tree); });
    ExpectFileError(error, "remove_all", tree, 145);
    EXPECT_EQ(error.path2().wstring(), tree);
    EXPECT_EQ(attempts, 2);  // the file and its folder
}

TEST(RemoveAll, EntriesThatVanishMeanwhileAreFine)
{
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    const std::wstring inner = folder.CreateFolder(L"tree\\inner");
    const std::wstring file = folder.WriteBytes(L"tree\\file", "x");
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, auto... arguments) {
        DeleteFileW(path == file ? path : L"");
        if (path == inner)
        {
            RemoveDirectoryW(path);
            return FailWith(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
        }
        return create.Original()(path, arguments...);
    });
    EXPECT_NO_THROW(RemoveAll(tree));
    EXPECT_FALSE(IsThere(tree));
}

TEST(RemoveAll, FolderThatCannotBeListedFailsAsNotEmpty)
{
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    folder.WriteBytes(L"tree\\file", "x");
    SUBSTITUTE(GetFileInformationByHandleEx)
    list([&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        return kind == FileFullDirectoryInfo ? FailWith(ERROR_ACCESS_DENIED)
                                             : list.Original()(object, kind, data, bytes);
    });
    if (WineVersion() < 10)  // it takes a folder for empty when asked for the second time
    {
        ExpectFileError(FileErrorOf([&] { RemoveAll(tree); }), "remove_all", tree, 145);
    }
    SUBSTITUTE(SetFileInformationByHandle)
    set([&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        return kind == FileDispositionInfo ? set.Original()(object, kind, data, bytes)
                                           : FailWith(ERROR_INVALID_PARAMETER);
    });
    ExpectFileError(FileErrorOf([&] { RemoveAll(tree); }), "remove_all", tree, 145);
}

// Proves: A folder becomes a link between its listing and its removal => it is never entered; what it leads to survives
TEST(RemoveAll, FolderThatBecomesALinkAfterItWasListedIsNotEntered)
{
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    const std::wstring inner = folder.CreateFolder(L"tree\\inner");
    const std::wstring target = folder.CreateFolder(L"target");
    const std::wstring precious = folder.WriteBytes(L"target\\precious", "x");
    std::optional<FolderLink> link;
    SUBSTITUTE(GetFileInformationByHandleEx)
    list([&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        const BOOL done = list.Original()(object, kind, data, bytes);
        if (done == FALSE && !link)  // the end of the listing
        {
            EXPECT_NE(MoveFileW(inner.c_str(), (folder / L"away").c_str()), FALSE);
            link.emplace(inner, target);
            EXPECT_TRUE(link->IsThere());
        }
        return done;
    });
    try
    {
        RemoveAll(tree);
    }
    catch (const std::filesystem::filesystem_error& error)  // Wine opens what the link leads to
    {
        ExpectFileError(error, "remove_all", tree, ERROR_CANT_RESOLVE_FILENAME);
        EXPECT_EQ(error.path2().wstring(), inner);
    }
    EXPECT_TRUE(IsThere(precious));
}

// Proves: The file system has no names for open folders => the tree is removed, unless a folder is a link by then
TEST(RemoveAll, WithoutNamesOfOpenFoldersDoesNotFollowAFolderThatBecameALink)
{
    const TemporaryFolder folder;
    const std::wstring tree = folder.CreateFolder(L"tree");
    folder.CreateFolder(L"tree\\inner");
    folder.WriteBytes(L"tree\\inner\\file", "x");
    bool hasBeenListed = false;
    bool becomesLink = true;
    SUBSTITUTE(GetFileInformationByHandleEx)
    information([&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        hasBeenListed |= kind == FileFullDirectoryInfo;
        if (kind == FileNameInfo)
        {
            return FailWith(ERROR_INVALID_PARAMETER);
        }
        const BOOL done = information.Original()(object, kind, data, bytes);
        if (kind == FileAttributeTagInfo && hasBeenListed && becomesLink)
        {
            static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data)->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        }
        return done;
    });
    ExpectFileError(FileErrorOf([&] { RemoveAll(tree); }), "remove_all", tree, ERROR_CANT_RESOLVE_FILENAME);
    EXPECT_TRUE(IsThere(tree + L"\\inner\\file"));
    becomesLink = false;
    RemoveAll(tree);
    EXPECT_FALSE(IsThere(tree));
}

// Proves: Another program renames a folder while it is emptied => it cannot
TEST(RemoveAll, FoldersAreHeldWhileTheyAreEmptied)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"tree\\inner");
    folder.WriteBytes(L"tree\\inner\\file", "x");
    std::vector<DWORD> errors;
    SUBSTITUTE(GetFileInformationByHandleEx)
    list([&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        const BOOL done = list.Original()(object, kind, data, bytes);
        if (done != FALSE)
        {
            return done;
        }
        for (const wchar_t* name : {L"tree", L"tree\\inner"})
        {
            const BOOL isMoved = MoveFileW((folder / name).c_str(), (folder / L"away").c_str());
            errors.push_back(isMoved != FALSE ? 0 : GetLastError());
            MoveFileW((folder / L"away").c_str(), (folder / name).c_str());
        }
        return done;
    });
    RemoveAll(folder / L"tree");
    EXPECT_THAT(errors, ElementsAre(32, 0, 32, 32));  // both after their own listing
}

TEST(HoldFolder, KeepsAFolderFromBeingRenamedAndRefusesAFile)
{
    const TemporaryFolder folder;
    const std::wstring held = folder.CreateFolder(L"held");
    FileHandle handle = HoldFolder(held);
    EXPECT_TRUE(static_cast<bool>(handle));
    EXPECT_EQ(MoveFileW(held.c_str(), (held + L"2").c_str()), FALSE);
    handle.Close();
    EXPECT_NE(MoveFileW(held.c_str(), (held + L"2").c_str()), FALSE);
    EXPECT_FALSE(static_cast<bool>(HoldFolder(folder.WriteBytes(L"file", "x"))));
    EXPECT_FALSE(static_cast<bool>(HoldFolder(held)));
}

// Proves: Another program writes the installer when it is to be held => it is waited for up to a second
TEST(HoldFile, WaitsASecondForAnotherProgramThatWrites)
{
    const TemporaryFolder folder;
    const std::wstring path = folder.WriteBytes(L"file", "x");
    FileHandle writer;
    int pauses = 0;
    int pausesOfTheWriter = 100;
    SUBSTITUTE(Sleep)
    pause([&](DWORD milliseconds) {
        EXPECT_EQ(milliseconds, 100u);
        if (++pauses == pausesOfTheWriter)
        {
            writer.Close();
        }
    });
    const auto open = [&] {
        writer = FileHandle(CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
        pauses = 0;
    };
    open();
    EXPECT_FALSE(static_cast<bool>(HoldFile(path)));
    EXPECT_EQ(pauses, 10);
    pausesOfTheWriter = 10;
    open();
    const FileHandle held = HoldFile(path);
    EXPECT_TRUE(static_cast<bool>(held));
    EXPECT_EQ(MoveFileW(path.c_str(), (folder / L"away").c_str()), FALSE);
    EXPECT_EQ(DeleteFileW(path.c_str()), FALSE);
    open();
    EXPECT_FALSE(static_cast<bool>(writer));
    EXPECT_FALSE(static_cast<bool>(HoldFile(folder / L"missing")));
    EXPECT_EQ(pauses, 0);
}

TEST(IsBelow, ComparesWhereObjectsAre)
{
    const TemporaryFolder folder;
    const std::wstring path = folder.CreateFolder(L"a");
    const FileHandle outer = HoldFolder(path);
    const FileHandle inner = HoldFolder(folder.CreateFolder(L"a\\b\\c"));
    const FileHandle sibling = HoldFolder(folder.CreateFolder(L"ab"));
    const FileHandle root = HoldFolder(L"C:\\");
    EXPECT_TRUE(IsBelow(inner.Get(), outer.Get()));
    EXPECT_TRUE(IsBelow(inner.Get(), root.Get()));
    EXPECT_FALSE(IsBelow(outer.Get(), outer.Get()));
    EXPECT_FALSE(IsBelow(outer.Get(), inner.Get()));
    EXPECT_FALSE(IsBelow(sibling.Get(), outer.Get()));
    EXPECT_FALSE(IsBelow(INVALID_HANDLE_VALUE, outer.Get()));
    EXPECT_FALSE(IsBelow(inner.Get(), INVALID_HANDLE_VALUE));
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

// An object to remove: its attributes in the folder listing, those read through its handle, and its tag.
struct FakeEntry
{
    DWORD listed;
    DWORD opened;
    DWORD tag = 0;
};

// Proves: The old folder holds links, deep trees, files that vanish meanwhile => links are removed and not entered, everything else goes
TEST(RemoveAll, LinksAreRemovedThemselvesAndNotEntered)
{
    constexpr DWORD kFolder = FILE_ATTRIBUTE_DIRECTORY;
    constexpr DWORD kLink = FILE_ATTRIBUTE_REPARSE_POINT;
    std::map<std::wstring, FakeEntry> entries;
    std::vector<std::wstring> open;
    std::vector<std::wstring> calls;
    const auto pathOf = [&](HANDLE object) { return open.at(reinterpret_cast<size_t>(object) - 1); };
    SUBSTITUTE(GetFileAttributesW) attributes([&](const wchar_t* path) { return entries.at(path).listed; });
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES*, DWORD, DWORD flags, HANDLE) {
        EXPECT_EQ(access & DELETE, DWORD{DELETE});
        EXPECT_EQ(flags, DWORD{FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS});
        calls.push_back((share == 3 ? L"hold " : L"open ") + std::wstring(path));
        open.push_back(path);
        return reinterpret_cast<HANDLE>(open.size());
    });
    SUBSTITUTE(GetFileInformationByHandleEx)
    information([&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD) {
        if (kind == FileFullDirectoryInfo)
        {
            const std::wstring call = L"list " + pathOf(object);
            const bool isListed = calls.back() == call;
            calls.insert(calls.end(), isListed ? 0 : 1, call);
            if (isListed || pathOf(object) != L"C:\\t")
            {
                return FailWith(ERROR_NO_MORE_FILES);
            }
            auto* const entry = static_cast<FILE_FULL_DIR_INFO*>(data);
            *entry = {};
            entry->FileAttributes = entries.at(L"C:\\t\\entry").listed;
            entry->EaSize = entries.at(L"C:\\t\\entry").tag;
            entry->FileNameLength = 10;
            std::memcpy(static_cast<BYTE*>(data) + offsetof(FILE_FULL_DIR_INFO, FileName), L"entry", 10);
            return TRUE;
        }
        if (kind == FileNameInfo)
        {
            auto* const name = static_cast<FILE_NAME_INFO*>(data);
            name->FileNameLength = static_cast<DWORD>(pathOf(object).size() * sizeof(wchar_t));
            std::memcpy(static_cast<BYTE*>(data) + offsetof(FILE_NAME_INFO, FileName), pathOf(object).data(),
                        name->FileNameLength);
            return TRUE;
        }
        EXPECT_EQ(kind, FileAttributeTagInfo);
        const FakeEntry& opened = entries.at(pathOf(object));
        *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {opened.opened, opened.tag};
        return TRUE;
    });
    SUBSTITUTE(GetFileInformationByHandle)
    volume([](HANDLE, BY_HANDLE_FILE_INFORMATION*) { return TRUE; });
    SUBSTITUTE(SetFileInformationByHandle)
    set([&](HANDLE object, auto...) { return calls.push_back(L"remove " + pathOf(object)), TRUE; });
    SUBSTITUTE(CloseHandle) closeObject([](HANDLE) { return TRUE; });
    const std::wstring listing[] = {L"hold C:\\t", L"list C:\\t"};
    for (const auto& [below, opening] : {std::pair(FakeEntry{kFolder | kLink, kFolder | kLink}, L"open C:\\t\\entry"),
                                         // Became a link after it was listed, and the reverse.
                                         std::pair(FakeEntry{kFolder, kFolder | kLink}, L"hold C:\\t\\entry"),
                                         std::pair(FakeEntry{kFolder | kLink, kFolder}, L"open C:\\t\\entry"),
                                         std::pair(FakeEntry{kLink, kLink}, L"open C:\\t\\entry")})
    {
        entries = {{L"C:\\t", {kFolder, kFolder}}, {L"C:\\t\\entry", below}};
        RemoveAll(L"C:\\t");
        EXPECT_THAT(std::exchange(calls, {}),
                    ElementsAre(listing[0], listing[1], opening, L"remove C:\\t\\entry", L"remove C:\\t"));
    }
    constexpr DWORD kCloud = 0x9000001A;
    entries = {{L"C:\\t", {kFolder, kFolder | kLink, kCloud}},
               {L"C:\\t\\entry", {kFolder | kLink, kFolder | kLink, kCloud}}};
    RemoveAll(L"C:\\t");
    EXPECT_THAT(std::exchange(calls, {}), ElementsAre(listing[0], listing[1], L"hold C:\\t\\entry",
                                                      L"list C:\\t\\entry", L"remove C:\\t\\entry", L"remove C:\\t"));
    entries = {{L"C:\\t", {kFolder, kFolder | kLink}}};
    RemoveAll(L"C:\\t");
    EXPECT_THAT(std::exchange(calls, {}), ElementsAre(L"hold C:\\t", L"remove C:\\t"));
    entries = {{L"C:\\t", {kFolder | kLink, kFolder | kLink}}};
    RemoveAll(L"C:\\t");
    EXPECT_THAT(calls, ElementsAre(L"open C:\\t", L"remove C:\\t"));
}
}  // namespace
}  // namespace repair
