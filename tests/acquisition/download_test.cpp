#include "acquisition/download.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

#include "base/system_message.h"
#include "support/error_matcher.h"
#include "support/fake_internet.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/temporary_folder.h"
#include "support/with_param.h"

using testing::ElementsAre;

IMPORTED(CloseHandle, CreateDirectoryW, CreateFileW, DeleteFileW, FlushFileBuffers, MoveFileW, WriteFile)

namespace repair
{
namespace
{
const std::wstring kUrl = L"http://server/f/24.20/dwx2_install.txt";
constexpr wchar_t kFile[] = L"dwx2_install.exe";
constexpr wchar_t kTemporaryFile[] = L"dwx2_install.exe.tmp";

// What every download does up to its request.
const std::wstring kBeginning =
    L"temporary path; log Change server to http://server/f/.; create folder; "
    L"split http://server/f/24.20/dwx2_install.txt; session; connect server 80; delete dwx2_install.exe; "
    L"delete dwx2_install.exe.tmp; create file; request /f/24.20/dwx2_install.txt; option 6 90000; option 5 30000; "
    L"option 2 30000";

// Downloads from http://server/f/. The calls into the internet, to files and the lines of the log are recorded in
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

    void ExpectSuccess() { EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath()); }

    // The download must return nothing and have written this line last.
    void ExpectFailure(const std::wstring& line)
    {
        EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
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
    bool isRecording_ = true;  // false: what the test itself does
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
        return FailWith(ERROR_NOT_OWNER, close_.Original()(handle));  // leaves another error behind
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
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "remove", FinalPath(), 32);
    CloseHandle(lock);
}

// Proves: The rename fails => not noticed: the path of a file that does not exist comes back
TEST_F(Download, DoesNotNoticeARenameThatFails)
{
    moveError_ = ERROR_ACCESS_DENIED;
    ExpectSuccess();
    EXPECT_FALSE(Exists(FinalPath()));
    EXPECT_EQ(log_.Lines().back(), L"Completed download. Total bytes downloaded: 9");
}

// Proves: The time limits are refused => not noticed
TEST_F(Download, DoesNotNoticeTimeLimitsThatAreRefused)
{
    internet_.optionError = ERROR_INVALID_PARAMETER;
    ExpectSuccess();
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
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    internet_.sendError = 0;
    ExpectSuccess();
    internet_.body = {"newer"};
    EXPECT_EQ(DownloadInstaller(L"24.21"), FinalPath());
    EXPECT_EQ(Content(FinalPath()), "newer");
}

// A server folder and a release, and the calls that they lead to.
struct Address
{
    const wchar_t* folder;
    const wchar_t* release;
    std::wstring url;
    std::wstring connection;
    std::wstring request;
};

using DownloadAddress = WithParam<Download, Address>;

// Proves: The address is made => server folder, release, file name, glued together without a separator
// Proves: An https address with a port other than 443 => requested without encryption
// Proves: An http address with port 443 => requested with encryption
TEST_P(DownloadAddress, IsGluedTogetherAndItsPortAloneDecidesAboutTls)
{
    UseServer(GetParam().folder);
    EXPECT_EQ(DownloadInstaller(GetParam().release), FinalPath());
    ASSERT_GT(internet_.calls.size(), 9u);
    EXPECT_EQ(internet_.calls[3], L"split " + GetParam().url);
    EXPECT_EQ(internet_.calls[5], L"connect " + GetParam().connection);
    EXPECT_EQ(internet_.calls[9], L"request " + GetParam().request);
}

INSTANTIATE_TEST_SUITE_P(
    All, DownloadAddress,
    testing::Values(Address{L"http://server/f/", L"24.20", kUrl, L"server 80", L"/f/24.20/dwx2_install.txt"},
                    Address{L"https://server/f/", L"24.20", L"https://server/f/24.20/dwx2_install.txt", L"server 443",
                            L"/f/24.20/dwx2_install.txt encrypted"},
                    Address{L"https://server:8443/", L"24.20", L"https://server:8443/24.20/dwx2_install.txt",
                            L"server 8443", L"/24.20/dwx2_install.txt"},
                    Address{L"http://server:443/", L"24.20", L"http://server:443/24.20/dwx2_install.txt", L"server 443",
                            L"/24.20/dwx2_install.txt encrypted"},
                    Address{L"http://server/f", L"24.20", L"http://server/f24.20/dwx2_install.txt", L"server 80",
                            L"/f24.20/dwx2_install.txt"},
                    Address{L"http://server/f//", L"", L"http://server/f///dwx2_install.txt", L"server 80",
                            L"/f///dwx2_install.txt"},
                    Address{L"http://server/f?x=", L"1&2", L"http://server/f?x=1&2/dwx2_install.txt", L"server 80",
                            L"/f?x=1&2/dwx2_install.txt"}));

TEST_F(Download, AsksTheMakersServerWithoutAnOverride)
{
    registry_.SetValue(L"SOFTWARE\\Tavik", L"DWXServerFolder", REG_DWORD, {0, 0, 0, 0});
    ExpectSuccess();
    EXPECT_EQ(internet_.calls[2], L"split https://download.tavik.example/drivers/installer/vlt/24.20/dwx2_install.txt");
    EXPECT_EQ(internet_.calls[4], L"connect download.tavik.example 443");
}

// A server folder whose URL cannot be split, and the code.
struct BadAddress
{
    std::wstring folder;
    int code;
};

using DownloadBadAddress = WithParam<Download, BadAddress>;

// Proves: The address cannot be split => logged with the code, nothing is opened; empty result
TEST_P(DownloadBadAddress, IsLoggedAndNothingIsOpened)
{
    UseServer(GetParam().folder);
    ExpectFailure(L"Unable to crack URL: " + GetParam().folder + L"24.20/dwx2_install.txt. Error = " +
                  std::to_wstring(GetParam().code));
    EXPECT_EQ(internet_.calls.size(), 5u);  // no session
    EXPECT_TRUE(Exists(Folder()));
}

INSTANTIATE_TEST_SUITE_P(All, DownloadBadAddress,
                         testing::Values(BadAddress{L"", 12006}, BadAddress{L"server/f/", 12006},
                                         BadAddress{L" http://server/", 12006},
                                         BadAddress{L"http://server/" + std::wstring(240, L'p') + L"/", 122},
                                         BadAddress{L"http://" + std::wstring(260, L'h') + L"/", 122}));

// A call that fails, its code, and what follows.
struct ThrownFailure
{
    DWORD FakeInternet::*call;
    int code;
    const char* message;
    const wchar_t* lastCall;
};

using DownloadException = WithParam<Download, ThrownFailure>;

// Proves: The session cannot be opened => exception "Unable to open internet connection" with the code
// Proves: The connection cannot be opened => exception "Unable to connect to server" with its own code, the session is closed; old files are still there
TEST_P(DownloadException, IsThrownWithItsOwnCodeAndOldFilesAreKept)
{
    Put(kFile, "earlier");
    internet_.*GetParam().call = static_cast<DWORD>(GetParam().code);
    try
    {
        DownloadInstaller(L"24.20");
        ADD_FAILURE() << "nothing was thrown";
    }
    catch (const std::system_error& error)
    {
        const std::error_code code(GetParam().code, std::system_category());
        EXPECT_EQ(error.code(), code);
        EXPECT_STREQ(error.what(), std::system_error(code, GetParam().message).what());
    }
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/."));
    EXPECT_EQ(internet_.calls.back(), GetParam().lastCall);
    EXPECT_EQ(Content(FinalPath()), "earlier");
}

INSTANTIATE_TEST_SUITE_P(
    All, DownloadException,
    testing::Values(ThrownFailure{&FakeInternet::sessionError, 12055, "Unable to open internet connection", L"session"},
                    ThrownFailure{&FakeInternet::connectionError, 5, "Unable to connect to server", L"close 1"}));

// Proves: The download folder cannot be created => file-system exception before anything is opened
TEST_F(Download, ThrowsBeforeAnythingIsOpenedWhenItsFolderCannotBeCreated)
{
    isRecording_ = false;
    temporary_.WriteBytes(L"Tavik_VLTInstallerDownload", "a file in its place");
    isRecording_ = true;
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "create_directories", Folder() + L"\\", 183);
    EXPECT_EQ(Calls(), L"temporary path; log Change server to http://server/f/.; create folder");
}

using DownloadOldFile = WithParam<Download, const wchar_t*>;

// Proves: An old file is locked, write-protected or a folder => file-system exception "remove", all handles are closed
TEST_P(DownloadOldFile, ThatCannotBeRemovedIsThrownAndTheConnectionClosed)
{
    const std::wstring path = Put(GetParam(), "old");
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "remove", path, 5);
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    const HANDLE lock = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "remove", path, 32);
    CloseHandle(lock);
    EXPECT_THAT(log_.Lines(), testing::Each(L"Change server to http://server/f/."));
    EXPECT_EQ(internet_.calls.back(), L"close 1");
}

INSTANTIATE_TEST_SUITE_P(Both, DownloadOldFile, testing::Values(kFile, kTemporaryFile));

// Proves: The temporary file cannot be created => logged with path and code, handles are closed; empty result
TEST_F(Download, LogsATemporaryFileThatCannotBeCreated)
{
    createError_ = ERROR_DISK_FULL;
    ExpectFailure(L"Unable to create file to download data into. Target path: " + TemporaryPath() + L". Error: 112");
    EXPECT_EQ(internet_.calls.back(), L"close 1");
}

// A call that fails with a code, what is done after the beginning, and what stays in the temporary file.
struct LoggedFailure
{
    DWORD FakeInternet::*call;
    DWORD code;
    std::wstring calls;
    const char* content = "";
};

using DownloadFailure = WithParam<Download, LoggedFailure>;

// Proves: The request cannot be opened => the time limits are set nevertheless; logged with the code that they leave; empty result
// Proves: The request cannot be sent: no server listens, wrong, expired or unknown certificate => logged with the code; empty result
// Proves: The status cannot be read => logged with code and text; empty result
// Proves: Reading fails otherwise => logged with code and text; what has arrived stays in the temporary file; empty result
TEST_P(DownloadFailure, IsLoggedWithItsCode)
{
    internet_.*GetParam().call = GetParam().code;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(Calls(), kBeginning + L"; " + GetParam().calls);
    EXPECT_EQ(Content(TemporaryPath()), GetParam().content);
    EXPECT_FALSE(Exists(FinalPath()));
}

const std::wstring kNoStatus =
    L"send; query; log Unable to create query response code from " + kUrl + L". Error code: ";
const std::wstring kNoBody =
    L"send; query; log Response code from server: 200; read; write 9; read; log Download failed with error code: ";
INSTANTIATE_TEST_SUITE_P(
    All, DownloadFailure,
    testing::Values(
        LoggedFailure{
            &FakeInternet::requestError, 12028,
            L"close file; log Unable to call HttpOpenRequest to " + kUrl + L". Error 12028; close 2; close 1"},
        LoggedFailure{&FakeInternet::sendError, 12029,
                      L"send; close file; log Unable to call HttpSendRequest to " + kUrl +
                          L". Error 12029; close 3; close 2; close 1"},
        LoggedFailure{&FakeInternet::queryError, ERROR_ACCESS_DENIED,
                      kNoStatus + L"5 " + FormatSystemMessage(5) + L"; close 3; close file; close 2; close 1"},
        // Codes that have no text
        LoggedFailure{&FakeInternet::queryError, 12150, kNoStatus + L"12150 ; close 3; close file; close 2; close 1"},
        LoggedFailure{&FakeInternet::readError, 12002, kNoBody + L"12002 ; close file; close 3; close 2; close 1",
                      "installer"},
        LoggedFailure{&FakeInternet::readError, 10054,
                      kNoBody + L"10054 " + FormatSystemMessage(10054) + L"; close file; close 3; close 2; close 1",
                      "installer"}));

TEST_F(Download, LogsTheErrorThatTheTimeLimitsLeaveWhenThereIsNoRequest)
{
    internet_.requestError = 12028;
    internet_.optionError = 12018;
    ExpectFailure(L"Unable to call HttpOpenRequest to " + kUrl + L". Error 12018");
}

using DownloadStatus = WithParam<Download, DWORD>;

// Proves: A status other than 200, even another good one => the status and a second line are logged, nothing is read; empty result
TEST_P(DownloadStatus, OtherThan200IsAFailure)
{
    internet_.status = GetParam();
    ExpectFailure(L"Error response code received from " + kUrl);
    ASSERT_EQ(log_.Lines().size(), 3u);
    EXPECT_EQ(log_.Lines()[1], L"Response code from server: " + std::to_wstring(GetParam()));
    EXPECT_THAT(internet_.calls, testing::Not(testing::Contains(L"read")));
    EXPECT_EQ(Content(TemporaryPath()), "");
}

INSTANTIATE_TEST_SUITE_P(All, DownloadStatus,
                         testing::Values(0u, 100u, 199u, 201u, 202u, 204u, 206u, 301u, 304u, 401u, 404u, 500u, 503u));

using DownloadServerText = WithParam<Download, std::wstring>;

// Proves: Reading fails with a text of the server => length and text are asked for and logged; empty result
TEST_P(DownloadServerText, IsAskedForItsLengthThenFetchedAndLogged)
{
    const std::wstring text = GetParam();
    internet_.readError = 12003;
    int calls = 0;
    SUBSTITUTE(InternetGetLastResponseInfoW)
    info([&](DWORD* error, wchar_t* buffer, DWORD* length) {
        *error = 530;
        if (++calls == 1)
        {
            EXPECT_EQ(std::tuple(buffer, *length), std::tuple(nullptr, 0u));
        }
        else
        {
            EXPECT_GE(*length, text.size());
            text.copy(buffer, text.size());
        }
        *length = static_cast<DWORD>(text.size());
        return calls == 1 && !text.empty() ? FailWith(ERROR_INSUFFICIENT_BUFFER) : TRUE;
    });
    ExpectFailure(L"Unable to read file from internet. Extended error code: 530 " + text);
    EXPECT_EQ(calls, 2);
}

INSTANTIATE_TEST_SUITE_P(All, DownloadServerText, testing::Values(L"530 too many users", L""));

// Proves: Writing fails or is short => "Failed writing to file" is logged; empty result
TEST_F(Download, LogsAWriteThatFailsAndReadsNoMore)
{
    writeError_ = ERROR_DISK_FULL;
    ExpectFailure(L"Failed writing to file: " + TemporaryPath());
    EXPECT_EQ(std::count(internet_.calls.begin(), internet_.calls.end(), L"read"), 1);
    EXPECT_EQ(Content(TemporaryPath()), "");
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
