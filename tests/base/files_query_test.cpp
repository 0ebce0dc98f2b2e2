#include <algorithm>
#include <map>

#include "base/files.h"
#include "base/handles.h"
#include "support/error_matcher.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(CloseHandle, CreateFileW, FindClose, FindFirstFileW, FindNextFileW, GetFileAttributesW,
         GetFileInformationByHandle, GetFileInformationByHandleEx)

namespace repair
{
namespace
{
constexpr DWORD kFolder = FILE_ATTRIBUTE_DIRECTORY;
constexpr DWORD kLink = FILE_ATTRIBUTE_REPARSE_POINT;

FileHandle Lock(const std::wstring& path)
{
    FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(static_cast<bool>(file));
    return file;
}

// Proves: A path is tested for existence => objects of any kind exist, links are followed; absence is an answer, everything else an error
TEST(Exists, ObjectOfAnyTypeAndNothingElse)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"File.exe", "");
    const FileHandle lock = Lock(file);
    for (const std::wstring& path : {file, folder / L"fILE.EXE", folder.Path(), folder.Path() + L"\\"})
    {
        EXPECT_TRUE(Exists(path)) << PrintToString(path);
    }
    for (const std::wstring& path :
         {folder / L"missing", folder / L"missing\\below", file + L"\\below", file + L"\\", folder / L"bad<name",
          std::wstring(L"Q:\\missing"), std::wstring(L"\\\\no server\\share\\file"), std::wstring()})
    {
        EXPECT_FALSE(Exists(path)) << PrintToString(path);
    }
    EXPECT_TRUE(FileExists(file));
    EXPECT_FALSE(FileExists(folder.Path()));
    EXPECT_FALSE(FileExists(folder / L"missing"));
}

TEST(Exists, AbsenceIsAnAnswerAndEveryOtherCodeAnError)
{
    DWORD code = 0;
    SUBSTITUTE(GetFileAttributesW)
    attributes([&](const wchar_t*) { return FailWith(code, INVALID_FILE_ATTRIBUTES); });
    for (const DWORD absence : {2u, 3u, 15u, 53u, 66u, 67u, 123u, 161u, 267u})
    {
        code = absence;
        EXPECT_FALSE(Exists(L"C:\\x")) << code;
    }
    for (const DWORD error : {5u, 21u, 64u, 1117u})
    {
        code = error;
        ExpectFileError(FileErrorOf([] { Exists(L"C:\\x"); }), "exists", L"C:\\x", static_cast<int>(code));
    }
}

TEST(Exists, FileWhoseAttributesAreLockedIsSearchedInItsFolder)
{
    SUBSTITUTE(GetFileAttributesW)
    attributes([](const wchar_t*) { return FailWith(ERROR_SHARING_VIOLATION, INVALID_FILE_ATTRIBUTES); });
    int closed = 0;
    SUBSTITUTE(FindClose) close([&](HANDLE) { return ++closed, TRUE; });
    DWORD code = ERROR_SUCCESS;
    SUBSTITUTE(FindFirstFileW)
    find([&](const wchar_t* path, WIN32_FIND_DATAW*) {
        EXPECT_STREQ(path, L"C:\\pagefile.sys");
        return code == ERROR_SUCCESS ? HANDLE{&closed} : FailWith(code, INVALID_HANDLE_VALUE);
    });
    EXPECT_TRUE(Exists(L"C:\\pagefile.sys"));
    EXPECT_EQ(closed, 1);
    code = ERROR_FILE_NOT_FOUND;
    EXPECT_FALSE(Exists(L"C:\\pagefile.sys"));
    code = ERROR_ACCESS_DENIED;
    ExpectFileError(FileErrorOf([] { Exists(L"C:\\pagefile.sys"); }), "exists", L"C:\\pagefile.sys", 5);
    EXPECT_EQ(closed, 1);
}

TEST(Exists, LinkIsFollowed)
{
    const TemporaryFolder folder;
    const std::wstring target = folder.WriteBytes(L"target", "");
    SUBSTITUTE(GetFileAttributesW) attributes([](const wchar_t*) { return kLink; });
    EXPECT_TRUE(Exists(target));  // opened for real
    DWORD code = ERROR_PATH_NOT_FOUND;
    SUBSTITUTE(CreateFileW) create([&](auto...) { return FailWith(code, INVALID_HANDLE_VALUE); });
    EXPECT_FALSE(Exists(L"C:\\link"));
    code = ERROR_ACCESS_DENIED;
    ExpectFileError(FileErrorOf([] { Exists(L"C:\\link"); }), "exists", L"C:\\link", 5);
}

// Proves: A file or folder is in the cloud or deduplicated => it is no link
TEST(IsLink, OnlyTagsThatStandForAnotherNameAndUnknownOnes)
{
    DWORD tag = 0;
    SUBSTITUTE(GetFileAttributesW) attributes([](const wchar_t*) { return kFolder | kLink; });
    SUBSTITUTE(FindFirstFileW)
    find([&](const wchar_t* path, WIN32_FIND_DATAW* data) {
        EXPECT_STREQ(path, L"C:\\x");
        data->dwReserved0 = tag;
        return HANDLE{&tag};
    });
    SUBSTITUTE(FindClose) close([](HANDLE) { return TRUE; });
    SUBSTITUTE(CreateFileW) create([](auto...) { return FailWith(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE); });
    for (const DWORD link : {0xA0000003u, 0xA000000Cu, 0u})  // junction, symbolic link
    {
        tag = link;
        EXPECT_TRUE(IsLink(L"C:\\x") && IsLink(L"C:\\x\\") && !Exists(L"C:\\x")) << tag;
    }
    for (const DWORD other : {0x9000001Au, 0x80000013u})  // cloud file, deduplicated file
    {
        tag = other;
        EXPECT_TRUE(!IsLink(L"C:\\x") && Exists(L"C:\\x")) << tag;
    }
}

TEST(SameObject, EverySpellingOfOnePathAndEveryOtherNameOfTheFileButNoOtherObject)
{
    const TemporaryFolder folder;
    folder.CreateFolder(L"Some Folder");
    const std::wstring file = folder.WriteBytes(L"Some Folder\\File.inf", "x");
    std::wstring slashes = file;
    std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
    wchar_t brief[MAX_PATH] = {};
    ASSERT_NE(GetShortPathNameW(file.c_str(), brief, MAX_PATH), 0u);
    ASSERT_NE(CreateHardLinkW((folder / L"second").c_str(), file.c_str(), nullptr), FALSE);
    const FileHandle lock = Lock(file);
    for (const std::wstring& path :
         {file, slashes, folder / L"SOME folder\\fILE.INF", folder / L"Some Folder\\.\\..\\Some Folder\\File.inf",
          L"\\\\?\\" + file, std::wstring(brief), folder / L"second"})
    {
        EXPECT_TRUE(SameObject(file, path)) << PrintToString(path);
    }
    EXPECT_TRUE(SameObject(folder.Path(), folder.Path() + L"\\"));
    EXPECT_TRUE(SameObject(folder.Path() + L"/", folder.Path()));
    const std::wstring other = folder.WriteBytes(L"other", "x");
    EXPECT_FALSE(SameObject(file, other));
    EXPECT_FALSE(SameObject(file, folder.Path()));
    EXPECT_FALSE(SameObject(folder.CreateFolder(L"a"), folder.CreateFolder(L"b")));
}

TEST(SameObject, MissingSideIsAnErrorThatNamesIt)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "x");
    for (const auto& [missing, code] : {std::pair(folder / L"missing", 2), std::pair(std::wstring(), 3)})
    {
        const std::wstring& path = missing;
        ExpectFileError(FileErrorOf([&] { SameObject(file, path); }), "equivalent", path, code);
        ExpectFileError(FileErrorOf([&] { SameObject(path, file); }), "equivalent", path, code);
        ExpectFileError(FileErrorOf([&] { SameObject(path, path); }), "equivalent", path, code);
    }
}

// Proves: The redirection guard refuses a link in the path of a folder that is compared => the texts of the paths decide
TEST(SameObject, ComparesTheTextsIfALinkIsRefused)
{
    SUBSTITUTE(CreateFileW) create([](auto...) { return FailWith(448, INVALID_HANDLE_VALUE); });
    EXPECT_TRUE(SameObject(L"C:\\Link\\a\\", L"C:\\link\\A"));
    EXPECT_FALSE(SameObject(L"C:\\link\\a", L"C:\\link\\b"));
}

TEST(SameObject, OpensBothForTheirAttributesOnlyAndClosesThem)
{
    const TemporaryFolder folder;
    std::vector<HANDLE> open;
    std::vector<HANDLE> closed;
    {
        SUBSTITUTE(CreateFileW)
        create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                   DWORD flags, HANDLE pattern) {
            // Without the flag that opens the link itself.
            EXPECT_EQ(std::tuple(access, share, disposition, flags), std::tuple(0x80u, 7u, 3u, 0x02000000u));
            EXPECT_TRUE(closed.empty());  // both are open together
            open.push_back(create.Original()(path, access, share, security, disposition, flags, pattern));
            return open.back();
        });
        SUBSTITUTE(CloseHandle)
        close([&](HANDLE handle) { return closed.push_back(handle), close.Original()(handle); });
        EXPECT_TRUE(SameObject(folder.Path(), folder.Path()));
    }
    ASSERT_EQ(open.size(), 2u);
    EXPECT_THAT(closed, testing::UnorderedElementsAreArray(open));
}

// Proves: Two folders are compared => by volume and file id, whatever they are called; both are opened for their attributes only and closed
TEST(SameObject, VolumeAndBothHalvesOfTheIndexCountWithoutTwoLongIds)
{
    struct Ids
    {
        DWORD volume, high, low;
    };
    constexpr Ids kFirst = {1, 2, 3};
    const TemporaryFolder folder;
    int calls = 0;
    Ids second = kFirst;
    SUBSTITUTE(GetFileInformationByHandleEx)
    noLongId([&](auto...) { return calls % 4 == 1 ? TRUE : FailWith(ERROR_INVALID_PARAMETER); });
    SUBSTITUTE(GetFileInformationByHandle)
    inform([&](HANDLE, BY_HANDLE_FILE_INFORMATION* information) {
        const Ids ids = ++calls % 2 == 1 ? kFirst : second;
        information->dwVolumeSerialNumber = ids.volume;
        information->nFileIndexHigh = ids.high;
        information->nFileIndexLow = ids.low;
        information->nNumberOfLinks = static_cast<DWORD>(calls);  // must be ignored, like all other fields
        return TRUE;
    });
    EXPECT_TRUE(SameObject(folder.Path(), folder.Path()));
    for (const Ids& other : {Ids{9, 2, 3}, Ids{1, 9, 3}, Ids{1, 2, 9}})
    {
        second = other;
        EXPECT_FALSE(SameObject(folder.Path(), folder.Path())) << other.volume << other.high << other.low;
    }
    EXPECT_EQ(calls, 8);
}

// Proves: Two folders are compared
TEST(SameObject, IdOf128BitsCountsWhereBothHaveOne)
{
    const TemporaryFolder folder;
    SUBSTITUTE(GetFileInformationByHandle)
    inform([](HANDLE, BY_HANDLE_FILE_INFORMATION*) { return TRUE; });  // the short ids are the same
    int calls = 0;
    FILE_ID_INFO second = {};
    SUBSTITUTE(GetFileInformationByHandleEx)
    informMore([&](HANDLE, FILE_INFO_BY_HANDLE_CLASS kind, void* information, DWORD bytes) {
        EXPECT_EQ(std::pair(kind, bytes), std::pair(FileIdInfo, DWORD{24}));
        *static_cast<FILE_ID_INFO*>(information) = ++calls % 2 == 1 ? FILE_ID_INFO{} : second;
        return TRUE;
    });
    EXPECT_TRUE(SameObject(folder.Path(), folder.Path()));
    second.VolumeSerialNumber = 1ull << 32;
    EXPECT_FALSE(SameObject(folder.Path(), folder.Path()));
    second.VolumeSerialNumber = 0;
    second.FileId.Identifier[15] = 1;
    EXPECT_FALSE(SameObject(folder.Path(), folder.Path()));
    EXPECT_EQ(calls, 6);
}

TEST(SameObject, ObjectWhoseIdCannotBeReadIsAnError)
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

TEST(FindSubfolder, FirstWantedFolderDirectlyBelow)
{
    const TemporaryFolder folder;
    EXPECT_TRUE(FindSubfolder(folder.Path(), &IsAnything).empty());  // "." and ".." are not offered
    folder.CreateFolder(L"..a\\x");
    folder.WriteBytes(L"x0", "a file");
    EXPECT_TRUE(FindSubfolder(folder.Path(), &BeginsWithX).empty());
    EXPECT_EQ(FindSubfolder(folder.Path(), &IsAnything).wstring(), folder / L"..a");
    folder.CreateFolder(L"x1");
    folder.CreateFolder(L"x2");
    folder.CreateFolder(L"y");
    EXPECT_EQ(FindSubfolder(folder.Path(), &BeginsWithX).wstring(), folder / L"x1");
    EXPECT_EQ(FindSubfolder(folder.Path() + L"\\", &BeginsWithX).wstring(), folder / L"x1");
}

TEST(FindSubfolder, FolderThatCannotBeListedIsAnError)
{
    constexpr char kOperation[] = "directory_iterator::directory_iterator";
    const TemporaryFolder folder;
    const std::wstring missing = folder / L"missing";
    const std::wstring file = folder.WriteBytes(L"file", "x");
    ExpectFileError(FileErrorOf([&] { FindSubfolder(missing, &IsAnything); }), kOperation, missing, 3);
    EXPECT_EQ(FileErrorOf([&] { FindSubfolder(file, &IsAnything); }).path1().wstring(), file);

    DWORD code = ERROR_ACCESS_DENIED;
    SUBSTITUTE(FindFirstFileW) find([&](auto...) { return FailWith(code, INVALID_HANDLE_VALUE); });
    ExpectFileError(FileErrorOf([&] { FindSubfolder(folder.Path(), &IsAnything); }), kOperation, folder.Path(), 5);
    code = ERROR_FILE_NOT_FOUND;  // Windows returns this for the root of an empty drive
    EXPECT_TRUE(FindSubfolder(folder.Path(), &IsAnything).empty());
    ExpectFileError(FileErrorOf([&] { FindSubfolder(missing, &IsAnything); }), kOperation, missing, 2);
}

// A listing of C:\f with these names and attributes; `end` is the code that ends the search. Opening a link's target
// fails with `linkCode`, or opens the path in `targets`.
struct FakeListing
{
    explicit FakeListing(std::vector<std::pair<std::wstring, DWORD>> content) : entries(std::move(content)) {}

    bool Give(WIN32_FIND_DATAW* data)
    {
        if (position == entries.size())
        {
            return false;
        }
        *data = {};
        entries[position].first.copy(data->cFileName, MAX_PATH - 1);
        data->dwFileAttributes = entries[position].second;
        data->dwReserved0 = tag;
        ++position;
        return true;
    }
    std::wstring Find() const { return FindSubfolder(L"C:\\f", &BeginsWithX).wstring(); }

    std::vector<std::pair<std::wstring, DWORD>> entries;
    size_t position = 0;
    DWORD end = ERROR_NO_MORE_FILES;
    DWORD linkCode = ERROR_FILE_NOT_FOUND;
    DWORD tag = 0;
    std::map<std::wstring, std::wstring> targets;
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
    close{[this](HANDLE) { return ++closed, TRUE; }};
    SUBSTITUTE(CreateFileW)
    open{[this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                DWORD flags, HANDLE pattern) {
        EXPECT_EQ(flags, DWORD{FILE_FLAG_BACKUP_SEMANTICS});
        const auto target = targets.find(path);
        return target == targets.end()
                   ? FailWith(linkCode, INVALID_HANDLE_VALUE)
                   : open.Original()(target->second.c_str(), access, share, security, disposition, flags, pattern);
    }};
};

// Proves: Two such folders (Bin64 before B384125)
TEST(FindSubfolder, OrderIsTheSystemsNotTheAlphabets)
{
    FakeListing listing({{L".", kFolder}, {L"..", kFolder}, {L"x9", kFolder}, {L"x1", kFolder}});
    EXPECT_EQ(listing.Find(), L"C:\\f\\x9");
    EXPECT_EQ(listing.closed, 1);
    EXPECT_EQ(listing.position, 3u);  // the rest is not read
}

// Proves: The listing breaks off => file-system error
TEST(FindSubfolder, ListingThatBreaksOffIsAnErrorAndOneThatEndsIsNone)
{
    const std::vector<std::pair<std::wstring, DWORD>> entries = {{L".", kFolder}, {L"a", kFolder}};
    {
        FakeListing listing(entries);
        EXPECT_EQ(listing.Find(), L"");
        EXPECT_EQ(listing.closed, 1);
    }
    FakeListing listing(entries);
    listing.end = ERROR_DEV_NOT_EXIST;
    ExpectFileError(FileErrorOf([&] { listing.Find(); }), "directory_iterator::operator++", L"C:\\f", 55);
    EXPECT_EQ(listing.closed, 1);
}

// Proves: A link to a folder => counts as a folder; a link to nothing does not
TEST(FindSubfolder, TargetOfALinkDecidesWhetherItIsAFolder)
{
    const TemporaryFolder folder;
    const std::wstring file = folder.WriteBytes(L"file", "");
    FakeListing listing({{L"x0", kFolder | kLink}, {L"x1", kFolder | kLink}, {L"x2", kLink}});  // x0 leads nowhere
    listing.targets = {{L"C:\\f\\x1", file}, {L"C:\\f\\x2", folder.Path()}};
    EXPECT_EQ(listing.Find(), L"C:\\f\\x2");
    FakeListing cloud({{L"x0", kLink}, {L"x1", kFolder | kLink}});
    cloud.tag = 0x9000001A;
    cloud.linkCode = ERROR_ACCESS_DENIED;
    EXPECT_EQ(cloud.Find(), L"C:\\f\\x1");
}

// Proves: The attributes of an entry cannot be read => file-system error "directory_entry::status", even when its name does not begin with B
TEST(FindSubfolder, LinkWhoseTargetCannotBeReadIsAnErrorEvenIfItIsNotWanted)
{
    using Entry = std::pair<std::wstring, DWORD>;
    for (const Entry& link : {Entry(L"x1", kLink), Entry(L"a", kFolder | kLink)})
    {
        FakeListing listing({link, {L"x2", kFolder}});
        listing.linkCode = ERROR_ACCESS_DENIED;
        ExpectFileError(FileErrorOf([&] { listing.Find(); }), "directory_entry::status", L"C:\\f\\" + link.first, 5);
        EXPECT_EQ(listing.closed, 1);
    }
}
}  // namespace
}  // namespace repair
