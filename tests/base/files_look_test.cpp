#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "base/files.h"
#include "base/handles.h"
#include "support/error_matcher.h"
#include "support/folder_link.h"
#include "support/real_windows.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(CloseHandle)
IMPORTED(CreateFileW)
IMPORTED(FindClose)
IMPORTED(FindFirstFileW)
IMPORTED(FindNextFileW)
IMPORTED(GetFileAttributesW)
IMPORTED(GetFileInformationByHandle)

using testing::ElementsAre;

namespace repair
{
namespace
{
FileHandle Lock(const std::wstring& path)
{
    FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(static_cast<bool>(file));
    return file;
}

// Proves: Something is looked for => objects of any kind exist, links are followed; absence is an answer, everything else an error
TEST(Exists, ObjectOfAnyType)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"File.exe", "");
    EXPECT_TRUE(Exists(file));
    EXPECT_TRUE(Exists(folder / L"fILE.EXE"));
    EXPECT_TRUE(Exists(folder.Path()));
    EXPECT_TRUE(Exists(folder.Path() + L"\\"));
    const FileHandle lock = Lock(file);
    EXPECT_TRUE(Exists(file));
}

TEST(Exists, NothingThere)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "");
    EXPECT_FALSE(Exists(folder / L"missing"));
    EXPECT_FALSE(Exists(folder / L"missing\\below"));
    EXPECT_FALSE(Exists(file + L"\\below"));
    EXPECT_FALSE(Exists(file + L"\\"));
    EXPECT_FALSE(Exists(folder / L"bad<name"));
    EXPECT_FALSE(Exists(L"Q:\\missing"));
    EXPECT_FALSE(Exists(L"\\\\no server\\share\\file"));
    EXPECT_FALSE(Exists(L""));
}

TEST(Exists, PathBeyondTheClassicLimit)
{
    ONLY_ON_WINE("paths of more than 260 characters are refused without a prefix");
    const TemporaryFolder folder;
    const std::wstring name(200, L'n');
    folder.CreateFolder(name + L"\\" + name);
    EXPECT_TRUE(Exists(folder / (name + L"\\" + name)));
    EXPECT_FALSE(Exists(folder / (name + L"\\" + name + L"x")));
}

struct LookingCode
{
    DWORD code;
    bool isAbsence;
};

class ExistsCode : public testing::TestWithParam<LookingCode>
{
};

TEST_P(ExistsCode, AbsenceIsAnAnswerEverythingElseAnError)
{
    SUBSTITUTE(GetFileAttributesW)
    look([](const wchar_t*) { return FailWith(GetParam().code, INVALID_FILE_ATTRIBUTES); });
    if (GetParam().isAbsence)
    {
        EXPECT_FALSE(Exists(L"C:\\x"));
    }
    else
    {
        ExpectFileError(FileErrorOf([] { Exists(L"C:\\x"); }), "exists", L"C:\\x", static_cast<int>(GetParam().code));
    }
}

INSTANTIATE_TEST_SUITE_P(All, ExistsCode,
                         testing::Values(LookingCode{2, true}, LookingCode{3, true}, LookingCode{15, true},
                                         LookingCode{53, true}, LookingCode{66, true}, LookingCode{67, true},
                                         LookingCode{123, true}, LookingCode{161, true}, LookingCode{267, true},
                                         LookingCode{5, false}, LookingCode{21, false}, LookingCode{1117, false},
                                         LookingCode{64, false}));

TEST(Exists, FileThatCannotEvenBeLookedAtIsSearchedInItsFolder)
{
    SUBSTITUTE(GetFileAttributesW)
    look([](const wchar_t*) { return FailWith(ERROR_SHARING_VIOLATION, INVALID_FILE_ATTRIBUTES); });
    int closed = 0;
    SUBSTITUTE(FindClose)
    close([&](HANDLE) {
        ++closed;
        return TRUE;
    });
    {
        SUBSTITUTE(FindFirstFileW)
        find([&](const wchar_t* path, WIN32_FIND_DATAW*) {
            EXPECT_STREQ(path, L"C:\\pagefile.sys");
            return reinterpret_cast<HANDLE>(&closed);
        });
        EXPECT_TRUE(Exists(L"C:\\pagefile.sys"));
        EXPECT_EQ(closed, 1);
    }
    {
        SUBSTITUTE(FindFirstFileW) find([](auto...) { return FailWith(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE); });
        EXPECT_FALSE(Exists(L"C:\\x"));
    }
    SUBSTITUTE(FindFirstFileW) find([](auto...) { return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE); });
    ExpectFileError(FileErrorOf([] { Exists(L"C:\\x"); }), "exists", L"C:\\x", 5);
}

TEST(Exists, LinkIsFollowed)
{
    const TemporaryFolder folder;
    const std::wstring target = folder.WriteBytes(L"target", "");
    const auto withOpening = [](DWORD code, auto action) {
        SUBSTITUTE(GetFileAttributesW) look([](const wchar_t*) { return DWORD{FILE_ATTRIBUTE_REPARSE_POINT}; });
        SUBSTITUTE(CreateFileW) create([&](auto...) { return FailWith(code, INVALID_HANDLE_VALUE); });
        return action();
    };
    EXPECT_FALSE(withOpening(ERROR_FILE_NOT_FOUND, [] { return Exists(L"C:\\link"); }));
    EXPECT_FALSE(withOpening(ERROR_PATH_NOT_FOUND, [] { return Exists(L"C:\\link"); }));
    const auto denied = FileErrorOf([&] { withOpening(ERROR_ACCESS_DENIED, [] { return Exists(L"C:\\link"); }); });
    ExpectFileError(denied, "exists", L"C:\\link", 5);
    SUBSTITUTE(GetFileAttributesW) look([](const wchar_t*) { return DWORD{FILE_ATTRIBUTE_REPARSE_POINT}; });
    EXPECT_TRUE(Exists(target));  // opened for real
}

TEST(SameObject, EverySpellingOfOnePath)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.CreateFolder(L"Some Folder") + L"\\File.inf";
    folder.WriteBytes(L"Some Folder\\File.inf", "x");
    std::wstring slashes = file;
    for (wchar_t& c : slashes)
    {
        c = c == L'\\' ? L'/' : c;
    }
    EXPECT_TRUE(SameObject(file, file));
    EXPECT_TRUE(SameObject(file, slashes));
    EXPECT_TRUE(SameObject(file, folder / L"SOME folder\\fILE.INF"));
    EXPECT_TRUE(SameObject(file, folder / L"Some Folder\\.\\..\\Some Folder\\File.inf"));
    EXPECT_TRUE(SameObject(file, L"\\\\?\\" + file));
    wchar_t brief[MAX_PATH] = {};
    ASSERT_NE(GetShortPathNameW(file.c_str(), brief, MAX_PATH), 0u);
    EXPECT_TRUE(SameObject(brief, file));
    EXPECT_TRUE(SameObject(folder.Path(), folder.Path() + L"\\"));
    EXPECT_TRUE(SameObject(folder.Path() + L"/", folder.Path()));
}

TEST(SameObject, OtherObjectsEvenOfTheSameContent)
{
    const TemporaryFolder folder;
    const std::wstring first = folder.WriteBytes(L"first", "same");
    const std::wstring second = folder.WriteBytes(L"second", "same");
    EXPECT_FALSE(SameObject(first, second));
    EXPECT_FALSE(SameObject(first, folder.Path()));
    EXPECT_FALSE(SameObject(folder.CreateFolder(L"a"), folder.CreateFolder(L"b")));
}

TEST(SameObject, SecondNameOfAFile)
{
    const TemporaryFolder folder;
    const std::wstring first = folder.WriteBytes(L"first", "x");
    ASSERT_NE(CreateHardLinkW((folder / L"second").c_str(), first.c_str(), nullptr), FALSE);
    EXPECT_TRUE(SameObject(first, folder / L"second"));
}

TEST(SameObject, LinkIsItsTarget)
{
    const TemporaryFolder folder;
    const TemporaryFolder elsewhere;
    const FolderLink link(folder / L"link", elsewhere.Path());
    if (!link.IsThere())
    {
        GTEST_SKIP() << "no link can be made here";
    }
    EXPECT_TRUE(SameObject(folder / L"link", elsewhere.Path()));
    EXPECT_FALSE(SameObject(folder / L"link", folder.Path()));
}

TEST(SameObject, LockedFileCanBeCompared)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    const FileHandle lock = Lock(file);
    EXPECT_TRUE(SameObject(file, file));
}

TEST(SameObject, MissingSideIsAnErrorThatNamesIt)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    const std::wstring missing = folder / L"missing";
    ExpectFileError(FileErrorOf([&] { SameObject(file, missing); }), "equivalent", missing, 2);
    ExpectFileError(FileErrorOf([&] { SameObject(missing, file); }), "equivalent", missing, 2);
    ExpectFileError(FileErrorOf([&] { SameObject(missing, missing); }), "equivalent", missing, 2);
    ExpectFileError(FileErrorOf([&] { SameObject(file, L""); }), "equivalent", L"", 3);
    ExpectFileError(FileErrorOf([&] { SameObject(L"", file); }), "equivalent", L"", 3);
}

TEST(SameObject, OpensBothForLookingOnlyAndClosesThem)
{
    const TemporaryFolder folder;
    std::vector<HANDLE> open;
    std::vector<HANDLE> closed;
    {
        SUBSTITUTE(CreateFileW)
        create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                   DWORD flags, HANDLE pattern) {
            EXPECT_EQ(access, DWORD{FILE_READ_ATTRIBUTES});
            EXPECT_EQ(share, 7u);
            EXPECT_EQ(disposition, DWORD{OPEN_EXISTING});
            EXPECT_EQ(flags, DWORD{FILE_FLAG_BACKUP_SEMANTICS});  // without the mark for the link itself
            EXPECT_TRUE(closed.empty());                          // both are open together
            open.push_back(create.Original()(path, access, share, security, disposition, flags, pattern));
            return open.back();
        });
        SUBSTITUTE(CloseHandle)
        close([&](HANDLE handle) {
            closed.push_back(handle);
            return close.Original()(handle);
        });
        EXPECT_TRUE(SameObject(folder.Path(), folder.Path()));
    }
    ASSERT_EQ(open.size(), 2u);
    EXPECT_THAT(closed, testing::UnorderedElementsAreArray(open));
}

// Ids of two objects that differ in one field.
struct ObjectIds
{
    DWORD volume;
    DWORD high;
    DWORD low;
    bool isSame;
};

class SameObjectId : public testing::TestWithParam<ObjectIds>
{
};

// Proves: Two folders are compared => by volume and file id, whatever they are called; both are opened for looking only and closed
TEST_P(SameObjectId, VolumeAndBothHalvesOfTheIndexCount)
{
    const TemporaryFolder folder;
    int calls = 0;
    SUBSTITUTE(GetFileInformationByHandle)
    inform([&](HANDLE, BY_HANDLE_FILE_INFORMATION* information) {
        const ObjectIds ids = ++calls == 1 ? ObjectIds{1, 2, 3, true} : GetParam();
        information->dwVolumeSerialNumber = ids.volume;
        information->nFileIndexHigh = ids.high;
        information->nFileIndexLow = ids.low;
        information->nNumberOfLinks = static_cast<DWORD>(calls);  // other fields do not count
        return TRUE;
    });
    EXPECT_EQ(SameObject(folder.Path(), folder.Path()), GetParam().isSame);
    EXPECT_EQ(calls, 2);
}

INSTANTIATE_TEST_SUITE_P(All, SameObjectId,
                         testing::Values(ObjectIds{1, 2, 3, true}, ObjectIds{9, 2, 3, false}, ObjectIds{1, 9, 3, false},
                                         ObjectIds{1, 2, 9, false}));

TEST(SameObject, ObjectThatDoesNotTellItsIdIsAnError)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    int calls = 0;
    SUBSTITUTE(GetFileInformationByHandle)
    inform([&](auto...) { return ++calls == 1 ? TRUE : FailWith(ERROR_INVALID_FUNCTION); });
    ExpectFileError(FileErrorOf([&] { SameObject(folder.Path(), file); }), "equivalent", file, 1);
}

bool BeginsWithX(const std::wstring& name)
{
    return !name.empty() && name.front() == L'x';
}

bool IsAnything(const std::wstring&)
{
    return true;
}

TEST(FindSubfolder, FirstWantedFolderInTheSystemsOrder)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"a");
    folder.WriteBytes(L"x0", "a file");
    folder.CreateFolder(L"x1");
    folder.CreateFolder(L"x2");
    folder.CreateFolder(L"y");
    EXPECT_EQ(FindSubfolder(folder.Path(), &BeginsWithX).wstring(), folder / L"x1");
    EXPECT_EQ(FindSubfolder(folder.Path() + L"\\", &BeginsWithX).wstring(), folder / L"x1");
}

TEST(FindSubfolder, NoneWantedGivesNothing)
{
    const TemporaryFolder folder;
    EXPECT_TRUE(FindSubfolder(folder.Path(), &IsAnything).empty());  // "." and ".." are not offered
    folder.WriteBytes(L"x", "a file");
    folder.CreateFolder(L"a\\x");  // not directly below
    EXPECT_TRUE(FindSubfolder(folder.Path(), &BeginsWithX).empty());
}

TEST(FindSubfolder, NameThatBeginsWithDotsIsAnOrdinaryOne)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"..a");
    EXPECT_EQ(FindSubfolder(folder.Path(), &IsAnything).wstring(), folder / L"..a");
}

TEST(FindSubfolder, FolderBeyondTheClassicPathLimit)
{
    ONLY_ON_WINE("paths of more than 260 characters are refused without a prefix");
    const TemporaryFolder folder;
    const std::wstring name(200, L'n');
    folder.CreateFolder(name + L"\\" + name + L"\\x");
    EXPECT_EQ(FindSubfolder(folder / (name + L"\\" + name), &IsAnything).wstring(),
              folder / (name + L"\\" + name + L"\\x"));
}

TEST(FindSubfolder, LinkToAFolderCountsAsAFolder)
{
    const TemporaryFolder folder;
    const TemporaryFolder elsewhere;
    const FolderLink link(folder / L"xlink", elsewhere.Path());
    if (!link.IsThere())
    {
        GTEST_SKIP() << "no link can be made here";
    }
    EXPECT_EQ(FindSubfolder(folder.Path(), &BeginsWithX).wstring(), folder / L"xlink");
}

TEST(FindSubfolder, FolderThatCannotBeListedIsAnError)
{
    const TemporaryFolder folder;
    const std::wstring missing = folder / L"missing";
    ExpectFileError(FileErrorOf([&] { FindSubfolder(missing, &IsAnything); }), "directory_iterator::directory_iterator",
                    missing, 3);
    SUBSTITUTE(FindFirstFileW) find([](auto...) { return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE); });
    ExpectFileError(FileErrorOf([&] { FindSubfolder(folder.Path(), &IsAnything); }),
                    "directory_iterator::directory_iterator", folder.Path(), 5);
}

TEST(FindSubfolder, FileInPlaceOfTheFolderIsAnError)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    const auto error = FileErrorOf([&] { FindSubfolder(file, &IsAnything); });
    EXPECT_EQ(std::string(error.what()).find("filesystem error: directory_iterator::directory_iterator: "), 0u);
    EXPECT_EQ(error.path1().wstring(), file);
}

TEST(FindSubfolder, RootWithoutAnyEntryHasNone)
{
    const TemporaryFolder folder;
    SUBSTITUTE(FindFirstFileW) find([](auto...) { return FailWith(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE); });
    EXPECT_TRUE(FindSubfolder(folder.Path(), &IsAnything).empty());
    const std::wstring missing = folder / L"missing";
    ExpectFileError(FileErrorOf([&] { FindSubfolder(missing, &IsAnything); }), "directory_iterator::directory_iterator",
                    missing, 2);
}

// A made-up listing of names with their attributes; `end` is what the search ends with.
struct MadeUpListing
{
    explicit MadeUpListing(std::vector<std::pair<std::wstring, DWORD>> content) : entries(std::move(content)) {}

    bool Give(WIN32_FIND_DATAW* data)
    {
        if (position == entries.size())
        {
            return false;
        }
        *data = {};
        entries[position].first.copy(data->cFileName, MAX_PATH - 1);
        data->dwFileAttributes = entries[position].second;
        ++position;
        return true;
    }

    std::vector<std::pair<std::wstring, DWORD>> entries;
    size_t position = 0;
    DWORD end = ERROR_NO_MORE_FILES;
    int closed = 0;
    SUBSTITUTE(FindFirstFileW)
    first{[this](const wchar_t* pattern, WIN32_FIND_DATAW* data) {
        EXPECT_STREQ(pattern, L"C:\\f\\*");
        Give(data);
        return reinterpret_cast<HANDLE>(this);
    }};
    SUBSTITUTE(FindNextFileW)
    next{[this](HANDLE, WIN32_FIND_DATAW* data) { return Give(data) ? TRUE : FailWith(end); }};
    SUBSTITUTE(FindClose)
    close{[this](HANDLE) {
        ++closed;
        return TRUE;
    }};
};

constexpr DWORD kFolder = FILE_ATTRIBUTE_DIRECTORY;
constexpr DWORD kLink = FILE_ATTRIBUTE_REPARSE_POINT;

TEST(FindSubfolder, OrderIsTheSystemsNotTheAlphabets)
{
    MadeUpListing listing({{L".", kFolder}, {L"..", kFolder}, {L"x9", kFolder}, {L"x1", kFolder}});
    EXPECT_EQ(FindSubfolder(L"C:\\f", &BeginsWithX).wstring(), L"C:\\f\\x9");
    EXPECT_EQ(listing.closed, 1);
    EXPECT_EQ(listing.position, 3u);  // the rest is not looked at
}

// Proves: The listing breaks off => file-system error
TEST(FindSubfolder, ListingThatBreaksOffIsAnError)
{
    MadeUpListing listing({{L".", kFolder}, {L"a", kFolder}});
    listing.end = ERROR_DEV_NOT_EXIST;
    ExpectFileError(FileErrorOf([] { FindSubfolder(L"C:\\f", &BeginsWithX); }), "directory_iterator::operator++",
                    L"C:\\f", 55);
    EXPECT_EQ(listing.closed, 1);
}

TEST(FindSubfolder, ListingThatEndsIsNone)
{
    MadeUpListing listing({{L".", kFolder}, {L"a", kFolder}});
    EXPECT_TRUE(FindSubfolder(L"C:\\f", &BeginsWithX).empty());
    EXPECT_EQ(listing.closed, 1);
}

TEST(FindSubfolder, LinkWhoseTargetIsGoneIsPassedOver)
{
    MadeUpListing listing({{L"x1", kFolder | kLink}, {L"x2", kFolder}});
    SUBSTITUTE(CreateFileW) create([](auto...) { return FailWith(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE); });
    EXPECT_EQ(FindSubfolder(L"C:\\f", &BeginsWithX).wstring(), L"C:\\f\\x2");
}

// Proves: The attributes of an entry cannot be read => file-system error "directory_entry::status", even when its name does not begin with B
TEST(FindSubfolder, LinkWhoseTargetCannotBeLookedAtIsAnError)
{
    MadeUpListing listing({{L"x1", kLink}, {L"x2", kFolder}});
    SUBSTITUTE(CreateFileW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE); });
    ExpectFileError(FileErrorOf([] { FindSubfolder(L"C:\\f", &BeginsWithX); }), "directory_entry::status", L"C:\\f\\x1",
                    5);
    EXPECT_EQ(listing.closed, 1);
}

TEST(FindSubfolder, TargetOfALinkDecidesWhetherItIsAFolder)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "");
    MadeUpListing listing({{L"x1", kFolder | kLink}, {L"x2", kLink}});
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
               DWORD flags, HANDLE pattern) {
        EXPECT_EQ(flags, DWORD{FILE_FLAG_BACKUP_SEMANTICS});
        const bool isFirst = std::wstring(path) == L"C:\\f\\x1";
        return create.Original()((isFirst ? file : folder.Path()).c_str(), access, share, security, disposition, flags,
                                 pattern);
    });
    EXPECT_EQ(FindSubfolder(L"C:\\f", &BeginsWithX).wstring(), L"C:\\f\\x2");
}

TEST(FindSubfolder, LinkThatIsNotWantedIsStillLookedAt)
{
    MadeUpListing listing({{L"a", kFolder | kLink}, {L"x2", kFolder}});
    SUBSTITUTE(CreateFileW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE); });
    ExpectFileError(FileErrorOf([] { FindSubfolder(L"C:\\f", &BeginsWithX); }), "directory_entry::status", L"C:\\f\\a",
                    5);
}
}  // namespace
}  // namespace repair
