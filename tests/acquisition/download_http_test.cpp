// The download over the system's own HTTP client.
#include "support/http_server.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "acquisition/download.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(GetTempPathW)

using testing::ElementsAre;
using testing::HasSubstr;

namespace repair
{
namespace
{
std::string Answer(const std::string& status, const std::string& body, const std::string& headers = "")
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers +
           "Connection: close\r\n\r\n" + body;
}

class HttpDownload : public testing::Test
{
protected:
    void Use(const std::wstring& folder) { registry_.SetString(L"SOFTWARE\\Tavik", L"DWXServerFolder", folder); }

    std::wstring Url(const std::wstring& path) const { return L"http://127.0.0.1:" + server_.Port() + path; }

    std::string Installer() const
    {
        std::ifstream file((temporary_ / L"Tavik_VLTInstallerDownload\\dwx2_install.exe").c_str(), std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }

    // Several reads of the client's buffer, with every byte value.
    static std::string LongBody()
    {
        std::string body(2'500'000, '\0');
        for (size_t i = 0; i < body.size(); ++i)
        {
            body[i] = static_cast<char>(i * 7 + i / 256);
        }
        return body;
    }

    HttpServer server_{{{"/f/1/dwx2_install.txt", Answer("200 OK", "installer")},
                        {"/f/empty/dwx2_install.txt", Answer("200 OK", "")},
                        {"/f/long/dwx2_install.txt", Answer("200 OK", LongBody())},
                        {"/f/part/dwx2_install.txt", Answer("206 Partial Content", "inst")},
                        {"/f/away/dwx2_install.txt",
                         Answer("302 Found", "", "Location: http://127.0.0.1:{port}/f/1/dwx2_install.txt\r\n")},
                        {"/f/lost/dwx2_install.txt", Answer("302 Found", "", "Location: /nowhere\r\n")}}};
    MachineRegistry registry_;
    TemporaryFolder temporary_;
    LogCapture log_;
    SUBSTITUTE(GetTempPathW)
    temp_{[this](DWORD, wchar_t* buffer) {
        const std::wstring path = temporary_.Path() + L"\\";
        path.copy(buffer, path.size());
        return static_cast<DWORD>(path.size());
    }};
};

// Proves: What the server sees => a GET with agent, referrer, accept type; caches are passed by, every download asks the server
TEST_F(HttpDownload, RequestCarriesReferrerAgentAndAcceptTypeAndPassesCachesBy)
{
    Use(Url(L"/f/"));
    EXPECT_EQ(DownloadInstaller(L"1"), temporary_ / L"Tavik_VLTInstallerDownload\\dwx2_install.exe");
    EXPECT_EQ(Installer(), "installer");
    ASSERT_EQ(server_.Requests().size(), 1u);
    const std::string& request = server_.Requests().front();
    EXPECT_EQ(request.substr(0, request.find('\r')), "GET /f/1/dwx2_install.txt HTTP/1.1");
    EXPECT_THAT(request, HasSubstr("\r\nReferer: http://support.tavik.example/\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nUser-Agent: Tavik Marlin Install Manager\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nAccept: Accept: */*\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nPragma: no-cache\r\n"));
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to " + Url(L"/f/") + L".", L"Response code from server: 200",
                                          L"Completed download. Total bytes downloaded: 9"));
}

TEST_F(HttpDownload, EachFetchesFromTheServer)
{
    Use(Url(L"/f/"));
    DownloadInstaller(L"1");
    DownloadInstaller(L"1");
    EXPECT_EQ(server_.Requests().size(), 2u);
}

TEST_F(HttpDownload, BodyLongerThanTheBufferIsComplete)
{
    Use(Url(L"/f/"));
    EXPECT_NE(DownloadInstaller(L"long"), L"");
    EXPECT_TRUE(Installer() == LongBody());
    EXPECT_EQ(log_.Lines().back(), L"Completed download. Total bytes downloaded: 2500000");
}

TEST_F(HttpDownload, EmptyBodySucceeds)
{
    Use(Url(L"/f/"));
    EXPECT_NE(DownloadInstaller(L"empty"), L"");
    EXPECT_EQ(log_.Lines().back(), L"Completed download. Total bytes downloaded: 0");
}

// Proves: A redirect => is followed, only the final status counts
TEST_F(HttpDownload, FinalStatusOfARedirectionCounts)
{
    Use(Url(L"/f/"));
    EXPECT_NE(DownloadInstaller(L"away"), L"");
    EXPECT_EQ(Installer(), "installer");
    EXPECT_EQ(DownloadInstaller(L"lost"), L"");
    EXPECT_EQ(log_.Lines()[4], L"Response code from server: 404");
}

TEST_F(HttpDownload, MissingOrPartialInstallerIsAFailure)
{
    Use(Url(L"/f/"));
    EXPECT_EQ(DownloadInstaller(L"missing"), L"");
    EXPECT_EQ(DownloadInstaller(L"part"), L"");
    EXPECT_THAT(log_.Lines(), ElementsAre(L"Change server to " + Url(L"/f/") + L".", L"Response code from server: 404",
                                          L"Error response code received from " + Url(L"/f/missing/dwx2_install.txt"),
                                          L"Change server to " + Url(L"/f/") + L".", L"Response code from server: 206",
                                          L"Error response code received from " + Url(L"/f/part/dwx2_install.txt")));
}

TEST_F(HttpDownload, HttpsAddressWithAnotherPortGoesOutInTheClear)
{
    Use(L"https://127.0.0.1:" + server_.Port() + L"/f/");
    EXPECT_NE(DownloadInstaller(L"1"), L"");
    EXPECT_EQ(Installer(), "installer");
}

TEST_F(HttpDownload, ServerThatDoesNotAnswer)
{
    std::wstring port;
    {
        const HttpServer gone({});
        port = gone.Port();
    }
    Use(L"http://127.0.0.1:" + port + L"/");
    EXPECT_EQ(DownloadInstaller(L"1"), L"");
    EXPECT_EQ(log_.Lines().back(),
              L"Unable to call HttpSendRequest to http://127.0.0.1:" + port + L"/1/dwx2_install.txt. Error 12029");
}
}  // namespace
}  // namespace repair
