#include "acquisition/made_up_internet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "acquisition/download.h"
#include "base/system_message.h"
#include "support/error_matcher.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace repair
{
namespace
{
using Download = MadeUpInternet;

constexpr wchar_t kUrl[] = L"http://server/f/24.20/dwx2_install.txt";

// What every download begins with, up to its request.
std::vector<std::wstring> Beginning()
{
    return {L"temporary path",
            L"log Change server to http://server/f/.",
            L"split http://server/f/24.20/dwx2_install.txt",
            L"session",
            L"connect server 80",
            L"delete dwx2_install.exe",
            L"delete dwx2_install.exe.tmp",
            L"create file",
            L"request /f/24.20/dwx2_install.txt 84000500",
            L"option 6 90000",
            L"option 5 30000",
            L"option 2 30000"};
}

std::vector<std::wstring> After(std::vector<std::wstring> calls, const std::vector<std::wstring>& more)
{
    calls.insert(calls.end(), more.begin(), more.end());
    return calls;
}

// Proves: A good download => address, session, connection, old files removed, file created, request with its flags and three time limits, status, copy, flush, close, old file removed, rename; then the request, the connection and the session are closed
// Proves: The download folder is missing => it is created with its parents, and stays
// Proves: The server says nothing for 90 seconds => the time limit of the request ends it
TEST_F(Download, StepsInTheirOrder)
{
    body_ = {"MZ first ", "second"};
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_THAT(calls_, ElementsAreArray(After(
                            Beginning(), {L"send", L"query", L"log Response code from server: 200", L"read", L"write 9",
                                          L"read", L"write 6", L"read", L"write 0", L"flush", L"close file",
                                          L"log Completed download. Total bytes downloaded: 15",
                                          L"delete dwx2_install.exe", L"rename", L"close 3", L"close 2", L"close 1"})));
    EXPECT_EQ(Content(FinalPath()), "MZ first second");
    EXPECT_FALSE(IsThere(TemporaryPath()));
}

// Proves: An empty body => succeeds with 0 bytes and an empty file
TEST_F(Download, EmptyBodyIsAnEmptyInstaller)
{
    body_.clear();
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_EQ(Content(FinalPath()), "");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/.", L"Response code from server: 200",
                                          L"Completed download. Total bytes downloaded: 0"));
}

// Proves: The body arrives => byte for byte, in blocks of a mebibyte, whatever the reads give
TEST_F(Download, BodyIsCopiedByteForByte)
{
    body_ = {std::string("a\0\r\n\x1a\xff", 6)};
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_EQ(Content(FinalPath()), std::string("a\0\r\n\x1a\xff", 6));
}

// Proves: Old files that can be removed => are replaced, and are gone even when the download fails
TEST_F(Download, EarlierFilesAreReplaced)
{
    Put(L"dwx2_install.exe", "an earlier installer that is longer");
    Put(L"dwx2_install.exe.tmp", "an earlier rest that is longer");
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_EQ(Content(FinalPath()), "installer");
    EXPECT_FALSE(IsThere(TemporaryPath()));
}

// Proves: The final file appears during the transfer => it is removed; when that fails, an exception
TEST_F(Download, FinalFileThatAppearsDuringTheTransferIsRemoved)
{
    SUBSTITUTE(FlushFileBuffers)
    flush([&](HANDLE) {
        Put(L"dwx2_install.exe", "another's");
        return TRUE;
    });
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_EQ(Content(FinalPath()), "installer");
}

// Proves: The rename fails => not noticed: the path of a file that does not exist comes back
TEST_F(Download, RenameThatFailsIsNotNoticed)
{
    moveError_ = ERROR_ACCESS_DENIED;
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_FALSE(IsThere(FinalPath()));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/.", L"Response code from server: 200",
                                          L"Completed download. Total bytes downloaded: 9"));
}

// Proves: The time limits are refused => not noticed
TEST_F(Download, TimeoutsThatAreRefusedDoNotMatter)
{
    optionError_ = ERROR_INVALID_PARAMETER;
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
}

// Proves: A body of 2 GiB or more => is copied, the logged number overflows
TEST_F(Download, CounterOfAHugeBodyShowsAsANegativeNumber)
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
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_EQ(log_.Lines().back(), L"Completed download. Total bytes downloaded: -2146435072");  // 2049 MiB
}

// A server folder and a release, and what becomes of them.
struct Address
{
    const wchar_t* folder;
    const wchar_t* release;
    const wchar_t* url;
    const wchar_t* connection;
    const wchar_t* request;
};

class DownloadAddress : public MadeUpInternet, public testing::WithParamInterface<Address>
{
};

// Proves: The address is made => server folder, release, file name, glued together without a separator
// Proves: An https address with another port than 443 => requested without encryption
// Proves: An http address with port 443 => requested with encryption
TEST_P(DownloadAddress, IsGluedTogetherAndItsPortAloneDecidesAboutTls)
{
    registry_.SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", GetParam().folder);
    EXPECT_EQ(DownloadInstaller(GetParam().release), FinalPath());
    ASSERT_GT(calls_.size(), 8u);
    EXPECT_EQ(calls_[2], std::wstring(L"split ") + GetParam().url);
    EXPECT_EQ(calls_[4], std::wstring(L"connect ") + GetParam().connection);
    EXPECT_EQ(calls_[8], std::wstring(L"request ") + GetParam().request);
}

INSTANTIATE_TEST_SUITE_P(
    All, DownloadAddress,
    testing::Values(Address{L"http://server/f/", L"24.20", L"http://server/f/24.20/dwx2_install.txt", L"server 80",
                            L"/f/24.20/dwx2_install.txt 84000500"},
                    Address{L"https://server/f/", L"24.20", L"https://server/f/24.20/dwx2_install.txt", L"server 443",
                            L"/f/24.20/dwx2_install.txt 84800500"},
                    Address{L"https://server:8443/", L"24.20", L"https://server:8443/24.20/dwx2_install.txt",
                            L"server 8443", L"/24.20/dwx2_install.txt 84000500"},
                    Address{L"http://server:443/", L"24.20", L"http://server:443/24.20/dwx2_install.txt", L"server 443",
                            L"/24.20/dwx2_install.txt 84800500"},
                    Address{L"http://server/f", L"24.20", L"http://server/f24.20/dwx2_install.txt", L"server 80",
                            L"/f24.20/dwx2_install.txt 84000500"},
                    Address{L"http://server/f//", L"", L"http://server/f///dwx2_install.txt", L"server 80",
                            L"/f///dwx2_install.txt 84000500"},
                    Address{L"http://server/f?x=", L"1&2", L"http://server/f?x=1&2/dwx2_install.txt", L"server 80",
                            L"/f?x=1&2/dwx2_install.txt 84000500"}));

TEST_F(Download, WithoutAnOverrideItIsTheMakersServer)
{
    registry_.SetValue(L"SOFTWARE\\Tavik", L"DWXServerFolder", REG_DWORD, {0, 0, 0, 0});
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    EXPECT_EQ(calls_[1], L"split https://download.tavik.example/drivers/installer/vlt/24.20/dwx2_install.txt");
    EXPECT_EQ(calls_[3], L"connect download.tavik.example 443");
}

// A server folder whose URL cannot be split, and the code.
struct BadAddress
{
    std::wstring folder;
    int code;
};

class DownloadBadAddress : public MadeUpInternet, public testing::WithParamInterface<BadAddress>
{
};

// Proves: The address cannot be split => logged with the code, nothing is opened; empty result
TEST_P(DownloadBadAddress, IsLoggedAndNothingIsOpened)
{
    registry_.SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", GetParam().folder);
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    const std::wstring url = GetParam().folder + L"24.20/dwx2_install.txt";
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"Change server to " + GetParam().folder + L".",
                            L"Unable to crack URL: " + url + L". Error = " + std::to_wstring(GetParam().code)));
    EXPECT_EQ(calls_.size(), 4u);  // no session
    EXPECT_TRUE(IsThere(Folder()));
}

INSTANTIATE_TEST_SUITE_P(All, DownloadBadAddress,
                         testing::Values(BadAddress{L"", 12006}, BadAddress{L"server/f/", 12006},
                                         BadAddress{L" http://server/", 12006},
                                         BadAddress{L"http://server/" + std::wstring(240, L'p') + L"/", 122},
                                         BadAddress{L"http://" + std::wstring(260, L'h') + L"/", 122}));

template <typename Error, typename Action>
std::optional<Error> Caught(Action action)
{
    try
    {
        action();
    }
    catch (const Error& error)
    {
        return error;
    }
    return {};
}

std::string Composed(const std::string& message, int code)
{
    return std::system_error(code, std::system_category(), message).what();
}

// Proves: The session cannot be opened => exception "Unable to open internet connection" with the code
TEST_F(Download, SessionThatCannotBeOpenedIsRaised)
{
    openError_ = 12055;
    const auto error = Caught<std::system_error>([] { DownloadInstaller(L"24.20"); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code(), std::error_code(12055, std::system_category()));
    EXPECT_EQ(std::string(error->what()), Composed("Unable to open internet connection", 12055));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/."));
    EXPECT_EQ(calls_.back(), L"session");
}

// Proves: The connection cannot be opened => exception "Unable to connect to server" with its own code, the session is closed; old files are still there
TEST_F(Download, ConnectionThatCannotBeOpenedIsRaisedWithItsOwnErrorAndTheSessionClosed)
{
    connectError_ = 5;
    const auto error = Caught<std::system_error>([] { DownloadInstaller(L"24.20"); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code(), std::error_code(5, std::system_category()));
    EXPECT_EQ(std::string(error->what()), Composed("Unable to connect to server", 5));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/."));
    EXPECT_EQ(calls_.back(), L"close 1");
}

TEST_F(Download, EarlierFilesAreKeptUntilTheConnectionIsOpen)
{
    Put(L"dwx2_install.exe", "earlier");
    connectError_ = 87;
    EXPECT_THROW(DownloadInstaller(L"24.20"), std::system_error);
    EXPECT_EQ(Content(FinalPath()), "earlier");
}

// Proves: The download folder cannot be created => file-system exception before anything is opened
TEST_F(Download, FolderThatCannotBeCreatedIsRaisedBeforeAnythingIsOpened)
{
    recording_ = false;
    temporary_.WriteBytes(L"Tavik_VLTInstallerDownload", "a file in its place");
    recording_ = true;
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "create_directories", Folder() + L"\\", 183);
    EXPECT_THAT(calls_, ElementsAre(L"temporary path", L"log Change server to http://server/f/."));
}

class DownloadOldFile : public MadeUpInternet, public testing::WithParamInterface<const wchar_t*>
{
};

// Proves: An old file is locked, write-protected or a folder => file-system exception "remove", all handles are closed
TEST_P(DownloadOldFile, ThatCannotBeRemovedIsRaisedAndTheConnectionClosed)
{
    const std::wstring path = Put(GetParam(), "old");
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "remove", path, 5);
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    const HANDLE lock = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "remove", path, 32);
    CloseHandle(lock);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(L"Change server to http://server/f/.", L"Change server to http://server/f/."));
    EXPECT_EQ(calls_[calls_.size() - 2], L"close 2");
    EXPECT_EQ(calls_.back(), L"close 1");
}

INSTANTIATE_TEST_SUITE_P(Both, DownloadOldFile, testing::Values(L"dwx2_install.exe", L"dwx2_install.exe.tmp"));

TEST_F(Download, FinalFileThatCannotBeRemovedAfterTheTransferIsRaised)
{
    HANDLE lock = INVALID_HANDLE_VALUE;
    SUBSTITUTE(FlushFileBuffers)
    flush([&](HANDLE) {
        const std::wstring path = Put(L"dwx2_install.exe", "x");
        lock = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        return TRUE;
    });
    ExpectFileError(FileErrorOf([] { DownloadInstaller(L"24.20"); }), "remove", FinalPath(), 32);
    CloseHandle(lock);
}

// Proves: The temporary file cannot be created => logged with path and code, handles are closed; empty result
TEST_F(Download, TemporaryFileThatCannotBeCreated)
{
    createError_ = ERROR_DISK_FULL;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/.",
                                          L"Unable to create file to download data into. Target path: " +
                                              TemporaryPath() + L". Error: 112"));
    EXPECT_EQ(calls_[calls_.size() - 2], L"close 2");
    EXPECT_EQ(calls_.back(), L"close 1");
}

// Proves: The request cannot be opened => the time limits are set all the same; logged with the code that stands after them; empty result
TEST_F(Download, RequestThatCannotBeOpenedHasItsTimeoutsSetAllTheSame)
{
    requestError_ = 12028;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_THAT(calls_, ElementsAreArray(After(Beginning(), {L"close file",
                                                             L"log Unable to call HttpOpenRequest to " +
                                                                 std::wstring(kUrl) + L". Error 12028",
                                                             L"close 2", L"close 1"})));
    EXPECT_EQ(Content(TemporaryPath()), "");  // stays behind
}

TEST_F(Download, ErrorOfTheRequestIsTheOneThatStandsAfterTheTimeouts)
{
    requestError_ = 12028;
    optionError_ = 12018;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(log_.Lines().back(), L"Unable to call HttpOpenRequest to " + std::wstring(kUrl) + L". Error 12018");
}

// Proves: The request cannot be sent: no server listens, wrong, expired or unknown certificate => logged with the code; empty result
TEST_F(Download, RequestThatCannotBeSent)
{
    sendError_ = 12029;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_THAT(calls_, ElementsAreArray(After(Beginning(), {L"send", L"close file",
                                                             L"log Unable to call HttpSendRequest to " +
                                                                 std::wstring(kUrl) + L". Error 12029",
                                                             L"close 3", L"close 2", L"close 1"})));
    EXPECT_EQ(Content(TemporaryPath()), "");
}

// Proves: The status cannot be read => logged with code and text; empty result
TEST_F(Download, StatusThatCannotBeRead)
{
    queryError_ = ERROR_ACCESS_DENIED;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/.",
                                          L"Unable to create query response code from " + std::wstring(kUrl) +
                                              L". Error code: 5 " + FormatSystemMessage(5)));
    EXPECT_EQ(Content(TemporaryPath()), "");
}

TEST_F(Download, StatusThatCannotBeReadForAReasonWithoutAText)
{
    queryError_ = 12150;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(log_.Lines().back(),
              L"Unable to create query response code from " + std::wstring(kUrl) + L". Error code: 12150 ");
}

class DownloadStatus : public MadeUpInternet, public testing::WithParamInterface<DWORD>
{
};

// Proves: A status other than 200, even another good one => the status and a second line are logged, nothing is read; empty result
TEST_P(DownloadStatus, OtherThan200IsAFailure)
{
    status_ = GetParam();
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to http://server/f/.",
                                          L"Response code from server: " + std::to_wstring(GetParam()),
                                          L"Error response code received from " + std::wstring(kUrl)));
    EXPECT_EQ(std::count(calls_.begin(), calls_.end(), L"read"), 0);
    EXPECT_EQ(Content(TemporaryPath()), "");
    EXPECT_FALSE(IsThere(FinalPath()));
}

INSTANTIATE_TEST_SUITE_P(All, DownloadStatus,
                         testing::Values(0u, 100u, 199u, 201u, 202u, 204u, 206u, 301u, 304u, 401u, 404u, 500u, 503u));

// Proves: Reading fails otherwise => logged with code and text; what had arrived stays in the temporary file; empty result
TEST_F(Download, ReadThatFailsLeavesWhatHadArrived)
{
    body_ = {"first"};
    readError_ = 10054;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_THAT(calls_,
                ElementsAreArray(After(
                    Beginning(), {L"send", L"query", L"log Response code from server: 200", L"read", L"write 5",
                                  L"read", L"log Download failed with error code: 10054 " + FormatSystemMessage(10054),
                                  L"close file", L"close 3", L"close 2", L"close 1"})));
    EXPECT_EQ(Content(TemporaryPath()), "first");
    EXPECT_FALSE(IsThere(FinalPath()));
}

TEST_F(Download, ReadThatFailsForAReasonWithoutAText)
{
    readError_ = 12002;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(log_.Lines().back(), L"Download failed with error code: 12002 ");
}

// Proves: Reading fails with a text of the server => length and text are asked for and logged; empty result
TEST_F(Download, TextThatTheServerLeftIsAskedForItsLengthThenFetched)
{
    readError_ = 12003;
    int calls = 0;
    const std::wstring text = L"530 too many users";
    SUBSTITUTE(InternetGetLastResponseInfoW)
    info([&](DWORD* error, wchar_t* buffer, DWORD* length) {
        *error = 530;
        if (++calls == 1)
        {
            EXPECT_EQ(buffer, nullptr);
            EXPECT_EQ(*length, 0u);
            *length = static_cast<DWORD>(text.size());
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        EXPECT_GE(*length, text.size());
        text.copy(buffer, text.size());
        *length = static_cast<DWORD>(text.size());
        return TRUE;
    });
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(log_.Lines().back(), L"Unable to read file from internet. Extended error code: 530 530 too many users");
}

TEST_F(Download, ServerWithoutATextLeavesItOut)
{
    readError_ = 12003;
    SUBSTITUTE(InternetGetLastResponseInfoW)
    info([](DWORD* error, wchar_t*, DWORD* length) {
        *error = 7;
        *length = 0;
        return TRUE;
    });
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(log_.Lines().back(), L"Unable to read file from internet. Extended error code: 7 ");
}

// Proves: Writing fails or is short => "Failed writing to file" is logged; empty result
TEST_F(Download, WriteThatFails)
{
    writeError_ = ERROR_DISK_FULL;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(log_.Lines().back(), L"Failed writing to file: " + TemporaryPath());
    EXPECT_EQ(std::count(calls_.begin(), calls_.end(), L"read"), 1);
    EXPECT_EQ(Content(TemporaryPath()), "");
    EXPECT_FALSE(IsThere(FinalPath()));
}

TEST_F(Download, WriteOfFewerBytesThanWereRead)
{
    SUBSTITUTE(WriteFile)
    write([&](HANDLE file, const void* data, DWORD bytes, DWORD* written, OVERLAPPED* overlapped) {
        return write.Original()(file, data, file == file_ && bytes > 0 ? bytes - 1 : bytes, written, overlapped);
    });
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    EXPECT_EQ(log_.Lines().back(), L"Failed writing to file: " + TemporaryPath());
    EXPECT_EQ(Content(TemporaryPath()), "installe");
}

// Proves: Several downloads in one run => each is complete in itself
TEST_F(Download, EachIsSelfContained)
{
    sendError_ = 12029;
    EXPECT_EQ(DownloadInstaller(L"24.20"), L"");
    sendError_ = 0;
    EXPECT_EQ(DownloadInstaller(L"24.20"), FinalPath());
    body_ = {"newer"};
    EXPECT_EQ(DownloadInstaller(L"24.21"), FinalPath());
    EXPECT_EQ(Content(FinalPath()), "newer");
}
}  // namespace
}  // namespace repair
