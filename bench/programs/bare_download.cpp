#include "bare_download.h"

#include <windows.h>
#include <wininet.h>

#include <memory>

namespace bench
{
namespace
{
constexpr DWORD kBufferBytes = 1'048'576;

bool Copy(HINTERNET request, HANDLE file)
{
    const auto buffer = std::make_unique<char[]>(kBufferBytes);
    DWORD received = 0;
    do
    {
        DWORD written = 0;
        if (InternetReadFile(request, buffer.get(), kBufferBytes, &received) == FALSE ||
            WriteFile(file, buffer.get(), received, &written, nullptr) == 0)
        {
            return false;
        }
    } while (received != 0);
    return true;
}
}  // namespace

int Download(const wchar_t* url, const wchar_t* temporary, const wchar_t* final)
{
    DeleteFileW(final);
    const HANDLE file =
        CreateFileW(temporary, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
    {
        return 1;
    }
    constexpr DWORD kFlags = INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_PRAGMA_NOCACHE;
    const HINTERNET session = InternetOpenW(L"bare loop", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
    const HINTERNET request = InternetOpenUrlW(session, url, nullptr, 0, kFlags, 0);
    const bool copied = request != nullptr && Copy(request, file);
    FlushFileBuffers(file);
    CloseHandle(file);
    if (!copied)
    {
        return 2;
    }
    const bool moved = MoveFileW(temporary, final) != 0;
    InternetCloseHandle(request);
    InternetCloseHandle(session);
    return moved ? 0 : 3;
}
}  // namespace bench
