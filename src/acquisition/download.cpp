#include "acquisition/download.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>

#include <windows.h>
#include <wininet.h>

#include "acquisition/constants.h"
#include "acquisition/server_folder.h"
#include "base/files.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/system_message.h"

namespace repair
{
namespace
{
struct InternetKind
{
    using Handle = HINTERNET;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle handle) noexcept { InternetCloseHandle(handle); }
};
using InternetHandle = Owned<InternetKind>;

struct InternetSession
{
    InternetHandle session;
    InternetHandle connection;  // closed first
};

struct DownloadPlan
{
    std::wstring url;
    std::wstring folder;
    std::wstring temporaryPath;
    std::wstring finalPath;
};

DownloadPlan MakePlan(const std::wstring& release)
{
    wchar_t temporaryFolder[kTempPathCharacters] = {};
    GetTempPathW(static_cast<DWORD>(std::size(temporaryFolder)), temporaryFolder);  // ends with a backslash
    DownloadPlan plan;
    plan.url = GetServerFolder() + release + kRemoteFile;
    plan.folder = std::wstring(temporaryFolder) + kDownloadFolder;
    plan.temporaryPath = plan.folder + L"\\" + kTemporaryFile;
    plan.finalPath = plan.folder + L"\\" + kInstallerFile;
    return plan;
}

// Creates the download folder, replacing a link, and holds it open. While another program replaces the folder or
// prevents holding it, tries again; in the end throws for "create_directories".
HeldFolder PrepareFolder(const DownloadPlan& plan)
{
    for (int attempt = 1;; ++attempt)
    {
        if (IsLink(plan.folder))
        {
            RemoveFileIfPresent(plan.folder);
        }
        CreateDirectories(plan.folder + L"\\");
        HeldFolder held = HoldWithKeeper(plan.folder);
        if (held.folder)
        {
            return held;
        }
        const DWORD error = GetLastError();
        if (attempt == kFolderAttempts)
        {
            ThrowFileError("create_directories", plan.folder, error);
        }
        Sleep(kFolderPauseMs);
    }
}

// Removes an old file, but not through a link in the folder's place. Throws for "remove".
void RemoveOldFile(const DownloadPlan& plan, const std::wstring& path)
{
    if (IsLink(plan.folder))  // it can be made one while it is empty: no file could be created in it to keep it
    {
        ThrowFileError("remove", path, ERROR_CANT_RESOLVE_FILENAME);
    }
    RemoveFileIfPresent(path);
}

// Creates the file for the body; an old one was removed. Returns none, with the last error set, if that fails, if
// another program has put something there, or if the file is outside the folder.
FileHandle CreateTemporaryFile(const DownloadPlan& plan, const FileHandle& folder)
{
    if (GetFileAttributesW(plan.temporaryPath.c_str()) == INVALID_FILE_ATTRIBUTES && !IsLink(plan.folder))
    {
        FileHandle file(CreateFileW(plan.temporaryPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file || IsBelow(file.Get(), folder.Get()))
        {
            return file;
        }
    }
    SetLastError(ERROR_CANT_RESOLVE_FILENAME);
    return {};
}

struct Server
{
    wchar_t host[kUrlPartCharacters] = {};
    wchar_t path[kUrlPartCharacters] = {};
    INTERNET_PORT port = 0;
};

// Returns false, after logging, if the URL cannot be split.
bool SplitUrl(const std::wstring& url, Server& server)
{
    URL_COMPONENTSW parts = {};
    static_assert(sizeof(parts) == 104);
    parts.dwStructSize = sizeof(parts);
    parts.lpszHostName = server.host;
    parts.dwHostNameLength = static_cast<DWORD>(std::size(server.host));
    parts.lpszUrlPath = server.path;
    parts.dwUrlPathLength = static_cast<DWORD>(std::size(server.path));
    if (InternetCrackUrlW(url.c_str(), static_cast<DWORD>(url.size()), 0, &parts) == FALSE)
    {
        const DWORD error = GetLastError();
        LogLine(L"Unable to crack URL: %s. Error = %d", url.c_str(), error);
        return false;
    }
    server.port = parts.nPort;
    return true;
}

InternetSession Connect(const Server& server)
{
    InternetSession session;
    session.session = InternetHandle(InternetOpenW(kUserAgent, INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!session.session)
    {
        const DWORD error = GetLastError();
        throw std::system_error(static_cast<int>(error), std::system_category(), "Unable to open internet connection");
    }
    session.connection = InternetHandle(InternetConnectW(session.session.Get(), server.host, server.port, nullptr,
                                                         nullptr, INTERNET_SERVICE_HTTP, 0, 0));
    if (!session.connection)
    {
        const DWORD error = GetLastError();
        session.session.Close();
        throw std::system_error(static_cast<int>(error), std::system_category(), "Unable to connect to server");
    }
    return session;
}

InternetHandle OpenRequest(const InternetSession& session, const Server& server)
{
    DWORD flags =
        INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_HYPERLINK | INTERNET_FLAG_PRAGMA_NOCACHE;
    if (server.port == INTERNET_DEFAULT_HTTPS_PORT)
    {
        // By design the port alone decides about TLS: an https address on another port is requested without it.
        flags |= INTERNET_FLAG_SECURE;
    }
    const wchar_t* acceptTypes[] = {kAcceptType, nullptr};
    InternetHandle request(
        HttpOpenRequestW(session.connection.Get(), L"GET", server.path, nullptr, kReferrer, acceptTypes, flags, 0));
    // Set before the null check: the logged error is the one these calls leave.
    const std::pair<DWORD, DWORD> timeouts[] = {{INTERNET_OPTION_RECEIVE_TIMEOUT, kReceiveTimeoutMs},
                                                {INTERNET_OPTION_SEND_TIMEOUT, kSendTimeoutMs},
                                                {INTERNET_OPTION_CONNECT_TIMEOUT, kConnectTimeoutMs}};
    for (auto [option, milliseconds] : timeouts)
    {
        InternetSetOptionW(request.Get(), option, &milliseconds, sizeof(milliseconds));
    }
    return request;
}

void LogReadFailure(DWORD error)
{
    if (error != ERROR_INTERNET_EXTENDED_ERROR)
    {
        LogLine(L"Download failed with error code: %d %s", error, FormatSystemMessage(error).c_str());
        return;
    }
    // The server sent a text: the first call returns its length, the second the text.
    DWORD extendedError = 0;
    DWORD length = 0;
    InternetGetLastResponseInfoW(&extendedError, nullptr, &length);
    std::wstring text(size_t{length} + 1, L'\0');
    DWORD room = length + 1;  // whether the length counts the terminator differs between versions
    InternetGetLastResponseInfoW(&extendedError, text.data(), &room);
    LogLine(L"Unable to read file from internet. Extended error code: %d %s", extendedError, text.c_str());
}

// One request and the file that its body is written to.
struct Transfer
{
    FileHandle file;
    InternetHandle request;  // closed first
};

// Writes the response body into the file. Returns false, after logging, if reading or writing fails. Closes the file,
// except after a failed write.
bool CopyBody(Transfer& transfer, const DownloadPlan& plan)
{
    const auto buffer = std::make_unique<std::byte[]>(kReceiveBufferBytes);
    std::uint32_t total = 0;  // wraps at 4 GiB; only logged
    DWORD received = 0;
    do
    {
        received = 0;
        if (InternetReadFile(transfer.request.Get(), buffer.get(), kReceiveBufferBytes, &received) == FALSE)
        {
            const DWORD error = GetLastError();
            LogReadFailure(error);
            transfer.file.Close();
            return false;
        }
        DWORD written = 0;
        if (WriteFile(transfer.file.Get(), buffer.get(), received, &written, nullptr) == 0 || written < received)
        {
            LogLine(L"Failed writing to file: %s", plan.temporaryPath.c_str());
            return false;
        }
        total += received;
    } while (received != 0);

    FlushFileBuffers(transfer.file.Get());
    transfer.file.Close();
    LogLine(L"Completed download. Total bytes downloaded: %d", total);
    return true;
}

// Sends the request. Returns whether the response body is the installer (status 200); if not, the reason is logged.
bool SendRequest(Transfer& transfer, const std::wstring& url)
{
    if (!transfer.request)
    {
        const DWORD error = GetLastError();
        transfer.file.Close();
        LogLine(L"Unable to call HttpOpenRequest to %s. Error %d", url.c_str(), error);
        return false;
    }
    if (HttpSendRequestW(transfer.request.Get(), nullptr, 0, nullptr, 0) == FALSE)
    {
        const DWORD error = GetLastError();
        transfer.file.Close();
        LogLine(L"Unable to call HttpSendRequest to %s. Error %d", url.c_str(), error);
        return false;
    }
    DWORD status = 0;
    DWORD size = sizeof(status);
    if (HttpQueryInfoW(transfer.request.Get(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size,
                       nullptr) == FALSE)
    {
        const DWORD error = GetLastError();
        LogLine(L"Unable to create query response code from %s. Error code: %d %s", url.c_str(), error,
                FormatSystemMessage(error).c_str());
        return false;
    }
    LogLine(L"Response code from server: %d", status);
    if (status != HTTP_STATUS_OK)
    {
        LogLine(L"Error response code received from %s", url.c_str());
        return false;
    }
    return true;
}
}  // namespace

HeldInstaller DownloadInstaller(std::wstring release)
{
    const DownloadPlan plan = MakePlan(release);
    HeldInstaller held;
    held.folder = PrepareFolder(plan);
    Server server;
    if (!SplitUrl(plan.url, server))
    {
        return {};
    }
    const InternetSession session = Connect(server);
    RemoveOldFile(plan, plan.finalPath);
    RemoveOldFile(plan, plan.temporaryPath);

    Transfer transfer;
    transfer.file = CreateTemporaryFile(plan, held.folder.folder);
    if (!transfer.file)
    {
        const DWORD error = GetLastError();
        LogLine(L"Unable to create file to download data into. Target path: %s. Error: %d", plan.temporaryPath.c_str(),
                error);
        return {};
    }
    transfer.request = OpenRequest(session, server);
    if (!SendRequest(transfer, plan.url) || !CopyBody(transfer, plan))
    {
        return {};
    }
    RemoveOldFile(plan, plan.finalPath);
    MoveFileW(plan.temporaryPath.c_str(),
              plan.finalPath.c_str());  // not checked; a failed rename shows up at the installer's start
    held.path = plan.finalPath;
    held.file = HoldFile(plan.finalPath);
    return held;
}
}  // namespace repair
