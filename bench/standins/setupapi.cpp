// A setupapi.dll for measurements: Wine's own, and where a package lies in the driver store, which Wine does not know.
// Unlike the lab's it writes no record, which would take longer than the calls.
#include <windows.h>
#include <setupapi.h>

#include <cwchar>
#include <map>
#include <string>

namespace
{
using Places = std::map<std::wstring, std::wstring>;

std::wstring ReadStore()
{
    std::wstring text;
    const HANDLE file = CreateFileW(L"C:\\lab\\standins\\driverstore.txt", GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    char block[4096];
    DWORD read = 0;
    while (ReadFile(file, block, sizeof(block), &read, nullptr) != 0 && read != 0)
        text.append(block, block + read);  // nothing but ASCII
    CloseHandle(file);
    return text;
}

// By the name of the INF as it was published, oem1.inf.
Places ReadPlaces()
{
    Places places;
    const std::wstring text = ReadStore();
    for (size_t at = 0, end = 0; (end = text.find(L'\n', at)) != std::wstring::npos; at = end + 1)
    {
        const size_t tab = text.find(L'\t', at);
        if (tab < end)
            places[text.substr(at, tab - at)] = text.substr(tab + 1, end - tab - 1);
    }
    return places;
}
}  // namespace

extern "C"
{
BOOL WINAPI Lab_SetupGetInfDriverStoreLocationW(PCWSTR inf, PSP_ALTPLATFORM_INFO, PCWSTR, PWSTR buffer, DWORD size,
                                                PDWORD)
{
    static const Places places = ReadPlaces();
    const wchar_t* const folder = std::wcsrchr(inf, L'\\');
    const auto found = places.find(folder == nullptr ? inf : folder + 1);
    if (found == places.end() || found->second.size() >= size)
    {
        SetLastError(found == places.end() ? ERROR_FILE_NOT_FOUND : ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::wcscpy(buffer, found->second.c_str());
    return TRUE;
}
}
