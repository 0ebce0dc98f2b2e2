#include "acquisition/download.h"

#include <algorithm>
#include <optional>
#include <system_error>

#include "base/system_message.h"
#include "support/error_matcher.h"
#include "support/fake_internet.h"
#include "support/folder_link.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/real_windows.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(CloseHandle, CreateDirectoryW, CreateFileW, DeleteFileW, FlushFileBuffers, GetFileInformationByHandleEx,
         MoveFileW, RemoveDirectoryW, Sleep, WriteFile)

namespace repair
{
namespace
{
const std::wstring kUrl = L"http://server/f/24.20/dwx2_install.txt";
constexpr wchar_t kFile[] = L"dwx2_install.exe";
constexpr wchar_t kTemporaryFile[] = L"dwx2_install.exe.tmp";

// The calls of every download before its request.
const std::wstring kBeginning =
    L"temporary path; log Change server to http://server/f/.; create folder; "
    L"split http://server/f/24.20/dwx2_install.txt; session; connect server 80; delete dwx2_install.exe; "
    L"delete dwx2_install.exe.tmp; create file; request /f/24.20/dwx2_install.txt; option 6 90000; option 5 30000; "
    L"option 2 30000";

// Downloads from http://server/f/. Records the internet calls, the file calls and the lines of the log in their
// order.
class Download : public testing::Test
{
protected:
    Download()
    {
        UseServer(L"http://server/f/");
        temporary_.onAsked = [this] { Add(L"temporary path"); };
    }

    // The download must close its file.
    void TearDown() override { EXPECT_EQ(file_, INVALID_HANDLE_VALUE); }

    void UseServer(const std::wstring& folder) { registry_.SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", folder); }

    std::wstring Folder() const { return temporary_ / L"Tavik_VLTInstallerDownload"; }
    std::wstring TemporaryPath() const { return Folder() + L"\\" + kTemporaryFile; }
    std::wstring FinalPath() const { return Folder() + L"\\" + kFile; }

    // The bytes of a file that must not be open.
    static std::string Content(const std::wstring& path)
    {
        const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(file, INVALID_HANDLE_VALUE) << "still open, or missing";
        std::string bytes(4096, '\0');
        DWORD count = 0;
        ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
        CloseHandle(file);
        return bytes.substr(0, count);
    }

    // Puts a file into the download folder, unrecorded, and returns its path.
    std::wstring Put(const std::wstring& name, const std::string& bytes)
    {
        isRecording_ = false;
        CreateDirectories(Folder());
        const std::wstring path = temporary_.WriteBytes(L"Tavik_VLTInstallerDownload\\" + name, bytes);
        isRecording_ = true;
        return path;
    }

    // Runs one download and keeps only its calls.
    std::wstring Run(const std::wstring& release = L"24.20")
    {
        internet_.calls.clear();
        return DownloadInstaller(release).path;
    }
    void ExpectSuccess() { EXPECT_EQ(Run(), FinalPath()); }

    // The download must return nothing and have written this line last.
    void ExpectFailure(const std::wstring& line)
    {
        EXPECT_EQ(Run(), L"");
        EXPECT_EQ(log_.Lines().back(), line);
        EXPECT_FALSE(Exists(FinalPath()));
    }

    std::wstring Calls() const
    {
        std::wstring joined;
        for (const std::wstring& call : internet_.calls)
        {
            joined += (joined.empty() ? L"" : L"; ") + call;
        }
        return joined;
    }

    MachineRegistry registry_;
    SystemTemporaryFolder temporary_;
    LogCapture log_;
    FakeInternet internet_;
    HANDLE file_ = INVALID_HANDLE_VALUE;
    bool isRecording_ = true;  // false while the test itself works with files
    DWORD createError_ = 0;
    DWORD writeError_ = 0;
    DWORD moveError_ = 0;

private:
    void Add(const std::wstring& call)
    {
        if (isRecording_)
        {
            internet_.calls.push_back(call);
        }
    }

    SUBSTITUTE(CreateDirectoryW)
    createFolder_{[this](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
        Add(L"create folder");
        return createFolder_.Original()(path, security);
    }};
    SUBSTITUTE(CreateFileW)
    create_{[this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                   DWORD flags, HANDLE pattern) {
        const bool isDownload = path == TemporaryPath() && disposition != OPEN_EXISTING && isRecording_;
        if (isDownload)
        {
            EXPECT_EQ(std::tuple(access, share, security, disposition, flags, pattern),
                      std::tuple(0x40000000u, 0u, nullptr, 2u, 0x80u, nullptr));
            Add(L"create file");
        }
        if (isDownload && createError_ != 0)
        {
            return FailWith(createError_, INVALID_HANDLE_VALUE);
        }
        const HANDLE file = create_.Original()(path, access, share, security, disposition, flags, pattern);
        file_ = isDownload ? file : file_;
        return file;
    }};
    SUBSTITUTE(WriteFile)
    write_{[this](HANDLE file, const void* data, DWORD bytes, DWORD* written, OVERLAPPED* overlapped) {
        const std::wstring line(static_cast<const wchar_t*>(data), file == file_ ? 0 : bytes / sizeof(wchar_t));
        if (line != L"\n")
        {
            Add(file == file_ ? L"write " + std::to_wstring(bytes) : L"log " + line);
        }
        return file == file_ && writeError_ != 0 ? FailWith(writeError_)
                                                 : write_.Original()(file, data, bytes, written, overlapped);
    }};
    SUBSTITUTE(FlushFileBuffers)
    flush_{[this](HANDLE file) {
        EXPECT_EQ(file, file_);
        Add(L"flush");
        return flush_.Original()(file);
    }};
    SUBSTITUTE(CloseHandle)
    close_{[this](HANDLE handle) {
        if (handle == file_ && handle != INVALID_HANDLE_VALUE)
        {
            Add(L"close file");
            file_ = INVALID_HANDLE_VALUE;
        }
        return FailWith(ERROR_NOT_OWNER, close_.Original()(handle));  // changes the last error
    }};
    SUBSTITUTE(DeleteFileW)
    delete_{[this](const wchar_t* path) {
        Add(std::wstring(L"delete ") + (path + Folder().size() + 1));
        return delete_.Original()(path);
    }};
    SUBSTITUTE(MoveFileW)
    move_{[this](const wchar_t* from, const wchar_t* to) {
        EXPECT_EQ(std::tuple(from, to), std::tuple(TemporaryPath(), FinalPath()));
        Add(L"rename");
        return moveError_ != 0 ? FailWith(moveError_) : move_.Original()(from, to);
    }};
};

// Proves: A good download => address, session, connection, old files removed, file created, request with its flags and three time limits, status, copy, flush, close, old file removed, rename; then the request, the connection and the session are closed
// Proves: The download folder is missing => it is created with its parents, and stays
// Proves: The server says nothing for 90 seconds => the time limit of the request ends it
// Proves: The body arrives => byte for byte, in blocks of a mebibyte, whatever the reads give
TEST_F(Download, TakesItsStepsInOrder)
{
    internet_.body = {"MZ first ", std::string("a\0\r\n\x1a\xff", 6)};
    ExpectSuccess();
    EXPECT_EQ(Calls(), kBeginning +
                           L"; send; query; log Response code from server: 200; read; write 9; read; write 6; read; "
                           L"write 0; flush; close file; log Completed download. Total bytes downloaded: 15; "
                           L"delete dwx2_install.exe; rename; close 3; close 2; close 1");
    EXPECT_EQ(Content(FinalPath()), "MZ first " + std::string("a\0\r\n\x1a\xff", 6));
    EXPECT_FALSE(Exists(TemporaryPath()));
}

// Puts a link to another user's folder in the download folder's place. Removes it as Windows does; all other calls
// are real.
class DownloadThroughLink : public Download
{
protected:
    void PlaceLink() { PlaceLink(Folder(), target_); }
    void PlaceLink(const std::wstring& path, const std::wstring& target)
    {
        isRecording_ = false;
        link_.emplace(path, target);
        isRecording_ = true;
        EXPECT_TRUE(link_->IsThere());
    }
    void ExpectUntouchedTarget() const
    {
        EXPECT_EQ(Content(precious_), "precious");
        EXPECT_EQ(Content(preciousToo_), "precious");
    }

    std::wstring target_ = temporary_.CreateFolder(L"target");
    std::wstring precious_ = temporary_.WriteBytes(L"target\\dwx2_install.exe.tmp", "precious");
    std::wstring preciousToo_ = temporary_.WriteBytes(L"target\\dwx2_install.exe", "precious");
    std::optional<FolderLink> link_;
    int removals_ = 0;

    SUBSTITUTE(DeleteFileW)
    deleteFile_{[this](const wchar_t* path) {
        return path == Folder() ? FailWith(ERROR_ACCESS_DENIED) : deleteFile_.Original()(path);
    }};
    SUBSTITUTE(RemoveDirectoryW)
    removeFolder_{[this](const wchar_t* path) {
        EXPECT_EQ(path, Folder());
        ++removals_;
        link_.reset();
        return TRUE;
    }};
    SUBSTITUTE(Sleep)
    pause_{[this](DWORD milliseconds) { pause_.Original()(milliseconds == 500 ? 0 : milliseconds); }};
};

// Proves: The download folder is a link => it is removed as one and made anew as a folder; nothing is written where it led
TEST_F(DownloadThroughLink, IsReplacedByAFolder)
{
    PlaceLink();
    ExpectSuccess();
    EXPECT_EQ(removals_, 1);
    EXPECT_FALSE(IsLink(Folder()));
    EXPECT_EQ(Content(FinalPath()), "installer");
    ExpectUntouchedTarget();
}

// Proves: The download folder becomes a link while it is opened => it is removed and made anew
TEST_F(DownloadThroughLink, ThatAppearsWhileTheFolderIsOpenedIsReplacedToo)
{
    ONLY_ON_WINE("the host moves the open folder away");
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
               DWORD flags, HANDLE model) {
        if (creation == CREATE_NEW && removals_ == 0)  // the first file in the folder
        {
            PlaceLink();
        }
        return create.Original()(path, access, share, security, creation, flags, model);
    });
    SUBSTITUTE(FlushFileBuffers) flush([](HANDLE) { return TRUE; });
    ExpectSuccess();
    EXPECT_EQ(removals_, 1);
    EXPECT_EQ(Content(FinalPath()), "installer");
    ExpectUntouchedTarget();
}

// Proves: The temporary file would be created through a link => "Unable to create file" is logged; a file where the link leads keeps its bytes
TEST_F(DownloadThroughLink, ThatAppearsLaterEndsTheDownload)
{
    ONLY_ON_WINE("the host moves the open folder away");
    // The link's path and target, and whether it appears in the call that creates the file.
    const std::wstring empty = temporary_.CreateFolder(L"empty");
    const std::tuple<std::wstring, std::wstring, bool> rows[] = {
        {TemporaryPath(), precious_, false},  // in an open folder
        {Folder(), target_, false},
        {Folder(), empty, true}};
    for (const auto& [link, target, late] : rows)
    {
        SUBSTITUTE(DeleteFileW)
        remove([&](const wchar_t* path) {
            const BOOL removed = remove.Original()(path);
            const DWORD error = GetLastError();
            if (!late && path == TemporaryPath())
            {
                PlaceLink(link, target);
            }
            SetLastError(error);
            return removed;
        });
        SUBSTITUTE(CreateFileW)
        create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
                   DWORD flags, HANDLE model) {
            if (late && path == TemporaryPath())
            {
                PlaceLink(link, target);
            }
            return create.Original()(path, access, share, security, creation, flags, model);
        });
        EXPECT_EQ(DownloadInstaller(L"24.20").path, L"");
        EXPECT_EQ(log_.Lines().back(),
                  L"Unable to create file to download data into. Target path: " + TemporaryPath() + L". Error: 1921");
        ExpectUntouchedTarget();
        link_.reset();
    }
}

// Proves: The download folder becomes a link before an old file is removed => file-system exception "remove"; the files where it leads stay
TEST_F(DownloadThroughLink, ThatAppearsBeforeARemovalIsNotFollowed)
{
    ONLY_ON_WINE("the host moves the open folder away");
    DWORD moment = 0;
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
               DWORD flags, HANDLE model) {
        const bool isNow = creation == moment && std::wstring(path).starts_with(Folder());
        const HANDLE file = isNow && creation == CREATE_NEW
                                ? FailWith(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE)  // so the folder stays empty
                                : create.Original()(path, access, share, security, creation, flags, model);
        if (isNow)
        {
            PlaceLink();
        }
        return file;
    });
    SUBSTITUTE(FlushFileBuffers) flush([](HANDLE) { return TRUE; });
    for (const DWORD each : {1u, 2u})  // CREATE_NEW and CREATE_ALWAYS: the first file in the folder, and the download
    {
        moment = each;
        ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "remove", FinalPath(),
                        ERROR_CANT_RESOLVE_FILENAME);
        ExpectUntouchedTarget();
        link_.reset();
        RemoveAll(Folder() + L".away");
    }
}

// Proves: The download folder stays a link => file-system exception, nothing is opened
TEST_F(DownloadThroughLink, ThatCannotBeRemovedIsNotUsed)
{
    PlaceLink();
    SUBSTITUTE(RemoveDirectoryW) removeFolder([&](const wchar_t*) { return ++removals_, TRUE; });
    SUBSTITUTE(GetFileInformationByHandleEx)
    information([](HANDLE, FILE_INFO_BY_HANDLE_CLASS, void* data, DWORD) {
        static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data)->FileAttributes =
            FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
        return TRUE;
    });
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "create_directories", Folder(),
                    ERROR_CANT_RESOLVE_FILENAME);
    EXPECT_EQ(removals_, 3);
    EXPECT_EQ(internet_.calls.back(), L"log Change server to http://server/f/.");
}

// Proves: Another program prevents holding the download folder => it is waited for up to a second; then a file-system exception, nothing is opened
TEST_F(Download, WaitsForAProgramThatPreventsHoldingTheFolderThenThrows)
{
    RemoveFileIfPresent(Put(kFile, "only to create the folder"));
    FileHandle other;
    int pauses = 0;
    int pausesOfTheOther = 2;
    SUBSTITUTE(Sleep)
    pause([&](DWORD milliseconds) {
        EXPECT_EQ(milliseconds, 500u);
        if (++pauses == pausesOfTheOther)
        {
            other.Close();
        }
    });
    const auto open = [&] {
        other = FileHandle(
            CreateFileW(Folder().c_str(), DELETE, 7, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        EXPECT_TRUE(static_cast<bool>(other));
    };
    open();
    EXPECT_EQ(DownloadInstaller(L"24.20").path, FinalPath());
    pausesOfTheOther = 100;
    internet_.calls.clear();
    open();
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "create_directories", Folder(),
                    ERROR_SHARING_VIOLATION);
    EXPECT_EQ(pauses, 4);
    EXPECT_THAT(internet_.calls, Not(Contains(L"session")));
}

// Proves: Another program replaces the download folder or the download before the installer has ended => it cannot
TEST_F(Download, FolderAndFileAreHeldUntilTheResultIsLetGo)
{
    isRecording_ = false;
    auto* const move = RealFunction<decltype(MoveFileW)>(L"kernel32.dll", "MoveFileW");
    const std::wstring away = temporary_ / L"away";
    int attempts = 0;
    SUBSTITUTE(FlushFileBuffers)
    flush([&](HANDLE) {
        ++attempts;
        EXPECT_EQ(move(Folder().c_str(), away.c_str()), FALSE);
        return TRUE;
    });
    {
        const HeldInstaller held = DownloadInstaller(L"24.20");
        EXPECT_EQ(move(Folder().c_str(), away.c_str()), FALSE);
        EXPECT_EQ(move(FinalPath().c_str(), away.c_str()), FALSE);
        EXPECT_EQ(DeleteFileW(FinalPath().c_str()), FALSE);
        EXPECT_EQ(CreateFileW(FinalPath().c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr),
                  INVALID_HANDLE_VALUE);
    }
    EXPECT_EQ(attempts, 1);
    WIN32_FIND_DATAW data = {};
    EXPECT_EQ(FindFirstFileW((Folder() + L"\\~*").c_str(), &data), INVALID_HANDLE_VALUE);  // no file was left behind
    EXPECT_NE(move(Folder().c_str(), away.c_str()), FALSE);
}

// Proves: An empty body => succeeds with 0 bytes and an empty file
TEST_F(Download, SucceedsWithAnEmptyBody)
{
    internet_.body.clear();
    ExpectSuccess();
    EXPECT_EQ(Content(FinalPath()), "");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/.", L"Response code from server: 200",
                                          L"Completed download. Total bytes downloaded: 0"));
}

// Proves: Old files that can be removed => are replaced, and are gone even when the download fails
TEST_F(Download, ReplacesEarlierFiles)
{
    Put(kFile, "an earlier installer that is longer");
    Put(kTemporaryFile, "an earlier rest that is longer");
    ExpectSuccess();
    EXPECT_EQ(Content(FinalPath()), "installer");
    EXPECT_FALSE(Exists(TemporaryPath()));
}

// Proves: The final file appears during the transfer => it is removed; when that fails, an exception
TEST_F(Download, RemovesAFinalFileThatAppearsDuringTheTransfer)
{
    HANDLE lock = INVALID_HANDLE_VALUE;
    SUBSTITUTE(FlushFileBuffers)
    flush([&](HANDLE) {
        Put(kFile, "another's");
        return TRUE;
    });
    ExpectSuccess();
    EXPECT_EQ(Content(FinalPath()), "installer");

    SUBSTITUTE(FlushFileBuffers)
    flushAndLock([&](HANDLE) {
        const std::wstring path = Put(kFile, "another's");
        lock = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        return TRUE;
    });
    ExpectFileError(FileErrorOf([this] { Run(); }), "remove", FinalPath(), 32);
    CloseHandle(lock);
}

// Proves: The rename fails => not noticed: the path of a file that does not exist comes back
// Proves: The time limits are refused => not noticed
TEST_F(Download, DoesNotNoticeTimeLimitsThatAreRefusedOrARenameThatFails)
{
    internet_.optionError = ERROR_INVALID_PARAMETER;
    moveError_ = ERROR_ACCESS_DENIED;
    ExpectSuccess();
    EXPECT_FALSE(Exists(FinalPath()));
    EXPECT_EQ(log_.Lines().back(), L"Completed download. Total bytes downloaded: 9");
}

// Proves: A body of 2 GiB or more => is copied, the logged number overflows
TEST_F(Download, LogsTheSizeOfAHugeBodyAsANegativeNumber)
{
    int reads = 0;
    SUBSTITUTE(InternetReadFile)
    read([&](HINTERNET, void*, DWORD room, DWORD* count) {
        *count = ++reads <= 2049 ? room : 0;
        return TRUE;
    });
    SUBSTITUTE(WriteFile)
    write([&](HANDLE file, const void* data, DWORD bytes, DWORD* written, OVERLAPPED* overlapped) {
        *written = bytes;
        return file == file_ ? TRUE : write.Original()(file, data, bytes, written, overlapped);
    });
    ExpectSuccess();
    EXPECT_EQ(log_.Lines().back(), L"Completed download. Total bytes downloaded: -2146435072");  // 2049 MiB
}

// Proves: Several downloads in one run => each is complete in itself
TEST_F(Download, LeavesNothingForTheNextOne)
{
    internet_.sendError = 12029;
    EXPECT_EQ(Run(), L"");
    internet_.sendError = 0;
    ExpectSuccess();
    internet_.body = {"newer"};
    EXPECT_EQ(Run(L"24.21"), FinalPath());
    EXPECT_EQ(Content(FinalPath()), "newer");
}

// Proves: The address is made => server folder, release and file name, joined without a separator
// Proves: An https address with a port other than 443 => requested without encryption
// Proves: An http address with port 443 => requested with encryption
TEST_F(Download, GluesItsAddressTogetherAndThePortAloneDecidesAboutTls)
{
    const std::wstring file = L"/dwx2_install.txt";
    struct
    {
        std::wstring folder, release, connection, request;
    } const rows[] = {{L"http://server/f/", L"24.20", L"server 80", L"/f/24.20" + file},
                      {L"https://server/f/", L"24.20", L"server 443", L"/f/24.20" + file + L" encrypted"},
                      {L"https://server:8443/", L"24.20", L"server 8443", L"/24.20" + file},
                      {L"http://server:443/", L"24.20", L"server 443", L"/24.20" + file + L" encrypted"},
                      {L"http://server/f", L"24.20", L"server 80", L"/f24.20" + file},
                      {L"http://server/f//", L"", L"server 80", L"/f//" + file},
                      {L"http://server/f?x=", L"1&2", L"server 80", L"/f?x=1&2" + file}};
    for (const auto& [folder, release, connection, request] : rows)
    {
        UseServer(folder);
        EXPECT_EQ(Run(release), FinalPath());
        EXPECT_THAT(internet_.calls, AllOf(Contains(L"split " + folder + release + file),
                                           Contains(L"connect " + connection), Contains(L"request " + request)));
    }
}

TEST_F(Download, AsksTheMakersServerWithoutAnOverride)
{
    registry_.SetValue(L"SOFTWARE\\Tavik", L"DWXServerFolder", REG_DWORD, {0, 0, 0, 0});
    ExpectSuccess();
    EXPECT_EQ(internet_.calls[2], L"split https://download.tavik.example/drivers/installer/vlt/24.20/dwx2_install.txt");
    EXPECT_EQ(internet_.calls[4], L"connect download.tavik.example 443");
}

// Proves: The address cannot be split => logged with the code, nothing is opened; empty result
TEST_F(Download, LogsAnAddressThatCannotBeSplitAndOpensNothing)
{
    const std::pair<std::wstring, const wchar_t*> rows[] = {
        {L"", L"12006"},
        {L"server/f/", L"12006"},
        {L" http://server/", L"12006"},
        {L"http://server/" + std::wstring(240, L'p') + L"/", L"122"},
        {L"http://" + std::wstring(260, L'h') + L"/", L"122"}};
    for (const auto& [folder, code] : rows)
    {
        UseServer(folder);
        ExpectFailure(L"Unable to crack URL: " + folder + L"24.20/dwx2_install.txt. Error = " + code);
        EXPECT_THAT(internet_.calls, Not(Contains(L"session")));
        EXPECT_TRUE(Exists(Folder()));
    }
}

// Proves: The session cannot be opened => exception "Unable to open internet connection" with the code
// Proves: The connection cannot be opened => exception "Unable to connect to server" with its own code, the session is closed; old files are still there
TEST_F(Download, ThrowsWithoutASessionOrAConnectionAndKeepsOldFiles)
{
    Put(kFile, "earlier");
    const auto expectError = [this](int code, const char* message, const wchar_t* lastCall) {
        try
        {
            Run();
            ADD_FAILURE() << "nothing was thrown";
        }
        catch (const std::system_error& error)
        {
            EXPECT_EQ(error.code(), std::error_code(code, std::system_category()));
            EXPECT_STREQ(error.what(), std::system_error(error.code(), message).what());
        }
        EXPECT_THAT(log_.Lines(), Each(L"Change server to http://server/f/."));
        EXPECT_EQ(internet_.calls.back(), lastCall);
        EXPECT_EQ(Content(FinalPath()), "earlier");
    };
    internet_.connectionError = 5;
    expectError(5, "Unable to connect to server", L"close 1");
    internet_.sessionError = 12055;
    expectError(12055, "Unable to open internet connection", L"session");
}

// Proves: The download folder cannot be created => file-system exception before anything is opened
// Proves: The temporary folder has blanks, other letters, more than 260 characters, or is none
TEST_F(Download, ThrowsBeforeAnythingIsOpenedWhenItsFolderCannotBeCreated)
{
    isRecording_ = false;
    temporary_.WriteBytes(L"Tavik_VLTInstallerDownload", "a file in its place");
    isRecording_ = true;
    ExpectFileError(FileErrorOf([this] { Run(); }), "create_directories", Folder() + L"\\", 183);
    EXPECT_EQ(Calls(), L"temporary path; log Change server to http://server/f/.; create folder");
    SUBSTITUTE(GetTempPathW) temporary([](DWORD, wchar_t*) { return FailWith(ERROR_BUSY, DWORD{0}); });
    SUBSTITUTE(CreateDirectoryW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED); });
    ExpectFileError(FileErrorOf([this] { Run(); }), "create_directories", L"Tavik_VLTInstallerDownload\\", 5);
}

// Proves: An old file is locked, write-protected or a folder => file-system exception "remove", all handles are closed
TEST_F(Download, ThrowsWhenAnOldFileCannotBeRemovedAndClosesTheConnection)
{
    for (const wchar_t* name : {kTemporaryFile, kFile})
    {
        const std::wstring path = Put(name, "old");
        SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
        ExpectFileError(FileErrorOf([this] { Run(); }), "remove", path, 5);
        SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        const HANDLE lock = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ExpectFileError(FileErrorOf([this] { Run(); }), "remove", path, 32);
        CloseHandle(lock);
        EXPECT_EQ(internet_.calls.back(), L"close 1");
    }
    EXPECT_THAT(log_.Lines(), Each(L"Change server to http://server/f/."));
}

// Proves: The temporary file cannot be created => logged with path and code, handles are closed; empty result
// Proves: The request cannot be opened => the time limits are set nevertheless; logged with the code that they leave; empty result
// Proves: The request cannot be sent: no server listens, wrong, expired or unknown certificate => logged with the code; empty result
// Proves: The status cannot be read => logged with code and text; empty result
// Proves: Reading fails otherwise => logged with code and text; what has arrived stays in the temporary file; empty result
// Proves: Writing fails or is short => "Failed writing to file" is logged; empty result
TEST_F(Download, LogsTheCallThatFailsWithItsCodeAndClosesEverything)
{
    const std::wstring statusFailure =
        L"send; query; log Unable to create query response code from " + kUrl + L". Error code: ";
    const std::wstring body = L"send; query; log Response code from server: 200; read; write 9; ";
    const std::wstring bodyFailure = body + L"read; log Download failed with error code: ";
    // The call that fails, its code, the steps after kBeginning, and what stays in the temporary file.
    const std::tuple<DWORD*, DWORD, std::wstring, const char*> rows[] = {
        {&internet_.requestError, 12028,
         L"close file; log Unable to call HttpOpenRequest to " + kUrl + L". Error 12028; close 2; close 1", ""},
        {&internet_.sendError, 12029,
         L"send; close file; log Unable to call HttpSendRequest to " + kUrl +
             L". Error 12029; close 3; close 2; close 1",
         ""},
        {&internet_.queryError, ERROR_ACCESS_DENIED,
         statusFailure + L"5 " + FormatSystemMessage(5) + L"; close 3; close file; close 2; close 1", ""},
        {&internet_.queryError, 12150, statusFailure + L"12150 ; close 3; close file; close 2; close 1",
         ""},  // without text
        {&internet_.readError, 12002, bodyFailure + L"12002 ; close file; close 3; close 2; close 1", "installer"},
        {&internet_.readError, 10054,
         bodyFailure + L"10054 " + FormatSystemMessage(10054) + L"; close file; close 3; close 2; close 1",
         "installer"},
        {&writeError_, ERROR_DISK_FULL,
         body + L"log Failed writing to file: " + TemporaryPath() + L"; close 3; close file; close 2; close 1", ""}};
    for (const auto& [fault, code, calls, content] : rows)
    {
        *fault = code;
        internet_.body = {"installer"};
        EXPECT_EQ(Run(), L"");
        EXPECT_EQ(Calls(), kBeginning + L"; " + calls);
        EXPECT_EQ(Content(TemporaryPath()), content);
        EXPECT_FALSE(Exists(FinalPath()));
        *fault = 0;
        RemoveAll(Folder());  // the next one creates it again
    }
    createError_ = ERROR_DISK_FULL;
    ExpectFailure(L"Unable to create file to download data into. Target path: " + TemporaryPath() + L". Error: 112");
    EXPECT_EQ(internet_.calls.back(), L"close 1");
    createError_ = 0;
    internet_.requestError = 12028;
    internet_.optionError = 12018;  // the error that setting the time limits leaves
    ExpectFailure(L"Unable to call HttpOpenRequest to " + kUrl + L". Error 12018");
}

// Proves: A status other than 200, even another good one => the status and a second line are logged, nothing is read; empty result
TEST_F(Download, FailsWithAStatusOtherThan200)
{
    for (const DWORD status : {0u, 100u, 199u, 201u, 202u, 204u, 206u, 301u, 304u, 401u, 404u, 500u, 503u})
    {
        internet_.status = status;
        ExpectFailure(L"Error response code received from " + kUrl);
        EXPECT_EQ(log_.Lines().rbegin()[1], L"Response code from server: " + std::to_wstring(status));
        EXPECT_THAT(internet_.calls, Not(Contains(L"read")));
        EXPECT_EQ(Content(TemporaryPath()), "");
    }
}

// Proves: Reading fails with a text of the server => length and text are asked for and logged; empty result
TEST_F(Download, AsksForTheLengthOfTheServersTextThenForTheTextAndLogsIt)
{
    std::wstring text;
    int calls = 0;
    SUBSTITUTE(InternetGetLastResponseInfoW)
    info([&](DWORD* error, wchar_t* buffer, DWORD* length) {
        *error = 530;
        const bool isFirst = ++calls % 2 == 1;
        EXPECT_EQ(buffer == nullptr, isFirst);
        EXPECT_EQ(*length, isFirst ? 0u : text.size() + 1);
        if (!isFirst)
        {
            text.copy(buffer, text.size());
        }
        *length = static_cast<DWORD>(text.size());
        return isFirst && !text.empty() ? FailWith(ERROR_INSUFFICIENT_BUFFER) : TRUE;
    });
    internet_.readError = 12003;
    for (const wchar_t* one : {L"530 too many users", L""})
    {
        text = one;
        ExpectFailure(L"Unable to read file from internet. Extended error code: 530 " + text);
    }
    EXPECT_EQ(calls, 4);
}

TEST_F(Download, LogsAWriteOfFewerBytesThanWereRead)
{
    SUBSTITUTE(WriteFile)
    write([&](HANDLE file, const void* data, DWORD bytes, DWORD* written, OVERLAPPED* overlapped) {
        return write.Original()(file, data, file == file_ && bytes > 0 ? bytes - 1 : bytes, written, overlapped);
    });
    ExpectFailure(L"Failed writing to file: " + TemporaryPath());
    EXPECT_EQ(Content(TemporaryPath()), "installe");
}
}  // namespace
}  // namespace repair
