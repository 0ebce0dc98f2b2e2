// Calls the forwarding stand-ins without the tool: loads them as it does, on demand and from system32 only.
//
// usage: standin_probe forwards           every export of the real DLLs is offered, and is the real one or our own
//        standin_probe calls              a fixed row of calls, with what came back
#include <windows.h>
#include <msi.h>
#include <setupapi.h>
#include <wininet.h>
#include <wtsapi32.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace
{
constexpr const char* kNames[] = {"setupapi", "msi", "wininet", "wtsapi32"};

struct Count
{
    unsigned forwarded = 0;
    unsigned own = 0;
    unsigned missing = 0;
};

void Compare(HMODULE standin, HMODULE real, const char* export_, Count& count)
{
    const FARPROC offered = GetProcAddress(standin, export_);
    if (offered == nullptr)
    {
        ++count.missing;
    }
    else if (offered == GetProcAddress(real, export_))
    {
        ++count.forwarded;
    }
    else
    {
        ++count.own;
    }
}

// The real DLL's own table says what has to be there, by name and by ordinal.
Count CompareAll(HMODULE standin, HMODULE real)
{
    Count count;
    auto* const base = reinterpret_cast<const BYTE*>(real);
    const auto at = [&](DWORD address) { return static_cast<const void*>(base + address); };
    const auto* const dos = static_cast<const IMAGE_DOS_HEADER*>(at(0));
    const auto* const nt = static_cast<const IMAGE_NT_HEADERS64*>(at(static_cast<DWORD>(dos->e_lfanew)));
    const auto* const table = static_cast<const IMAGE_EXPORT_DIRECTORY*>(
        at(nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress));
    const auto* const names = static_cast<const DWORD*>(at(table->AddressOfNames));
    for (DWORD i = 0; i < table->NumberOfNames; ++i)
    {
        Compare(standin, real, static_cast<const char*>(at(names[i])), count);
    }
    const auto* const functions = static_cast<const DWORD*>(at(table->AddressOfFunctions));
    for (DWORD i = 0; i < table->NumberOfFunctions; ++i)
    {
        if (functions[i] != 0)
        {
            Compare(standin, real, MAKEINTRESOURCEA(table->Base + i), count);
        }
    }
    return count;
}

int Forwards()
{
    for (const std::string name : kNames)
    {
        const HMODULE standin = LoadLibraryA((name + ".dll").c_str());
        const HMODULE real = LoadLibraryA((name + "_lab.dll").c_str());
        if (standin == nullptr || real == nullptr)
        {
            std::printf("%s: not installed\n", name.c_str());
            continue;
        }
        const Count count = CompareAll(standin, real);
        std::printf("%s: forwarded %u, own %u, missing %u\n", name.c_str(), count.forwarded, count.own, count.missing);
    }
    return 0;
}

void Devices()
{
    const GUID display = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
    for (int i = 0; i < 3; ++i)
    {
        SetLastError(4321);  // a stand-in without a rule leaves it as the real function does
        const ULONGLONG start = GetTickCount64();
        const HDEVINFO set = SetupDiGetClassDevsW(&display, nullptr, nullptr, DIGCF_PRESENT);
        const DWORD error = GetLastError();
        const ULONGLONG took = GetTickCount64() - start;
        std::printf("devices: %s gle=%lu%s\n",
                    set == INVALID_HANDLE_VALUE ? "invalid"
                    : set == nullptr            ? "null"
                                                : "handle",
                    error, took >= 200 ? " slow" : "");
        if (set != INVALID_HANDLE_VALUE && set != nullptr)
        {
            SetupDiDestroyDeviceInfoList(set);
        }
    }
}

void DriverStore(const wchar_t* inf, DWORD size)
{
    using Function = WINBOOL(WINAPI*)(const wchar_t*, void*, const wchar_t*, wchar_t*, DWORD, DWORD*);
    const auto locate = reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(L"setupapi.dll"), "SetupGetInfDriverStoreLocationW")));
    wchar_t path[MAX_PATH] = L"untouched";
    SetLastError(0);
    const BOOL result = locate(inf, nullptr, nullptr, path, size, nullptr);
    const DWORD error = GetLastError();
    std::printf("driver store: %d gle=%lu [%ls]\n", result, error, path);
}

void Products()
{
    for (int i = 0; i < 2; ++i)
    {
        wchar_t product[39] = L"untouched";
        const UINT result = MsiEnumRelatedProductsW(L"{11111111-2222-3333-4444-555555555555}", 0, 0, product);
        std::printf("product: %u [%ls]\n", result, product);
    }
    wchar_t value[8] = L"old";
    DWORD size = 8;
    const UINT result = MsiGetProductInfoW(L"{11111111-2222-3333-4444-555555555555}", L"LocalPackage", value, &size);
    std::printf("product info: %u %lu [%ls]\n", result, size, value);
}

void Internet()
{
    wchar_t host[260] = L"";
    wchar_t path[260] = L"";
    URL_COMPONENTSW parts{};
    parts.dwStructSize = sizeof parts;
    parts.lpszHostName = host;
    parts.dwHostNameLength = 260;
    parts.lpszUrlPath = path;
    parts.dwUrlPathLength = 260;
    const BOOL cracked = InternetCrackUrlW(L"http://localhost:81/a/b.txt", 0, 0, &parts);
    std::printf("url: %d [%ls] %u [%ls]\n", cracked, host, parts.nPort, path);

    const HINTERNET session = InternetOpenW(L"probe", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    const DWORD error = GetLastError();
    std::printf("session: %s gle=%lu\n", session == nullptr ? "null" : "handle", session == nullptr ? error : 0);
    BYTE bytes[16];
    DWORD count = 99;
    const BOOL read = InternetReadFile(session, bytes, sizeof bytes, &count);
    const DWORD readError = GetLastError();
    std::printf("read: %d gle=%lu count=%lu\n", read, readError, count);
    DWORD code = 0;
    DWORD length = 0;
    InternetGetLastResponseInfoW(&code, nullptr, &length);
    std::wstring text(length, L'\0');
    DWORD size = length;
    const BOOL told = InternetGetLastResponseInfoW(&code, text.data(), &size);
    std::printf("response: %d %lu length=%lu [%ls]\n", told, code, length, text.c_str());
    if (session != nullptr)
    {
        InternetCloseHandle(session);
    }
}

void Session()
{
    LPWSTR name = nullptr;
    DWORD size = 0;
    const BOOL result =
        WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, WTS_CURRENT_SESSION, WTSUserName, &name, &size);
    const DWORD error = GetLastError();
    std::printf("user: %d gle=%lu size=%lu [%ls]\n", result, result ? 0 : error, size, name == nullptr ? L"" : name);
    WTSFreeMemory(name);
}
}  // namespace

int main(int count, char** arguments)
{
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    const std::string_view what = count > 1 ? arguments[1] : "";
    if (what == "forwards")
    {
        return Forwards();
    }
    if (what != "calls")
    {
        std::fputs("usage: standin_probe forwards | calls\n", stderr);
        return 2;
    }
    Devices();
    DriverStore(L"C:\\windows\\inf\\OEM7.INF", MAX_PATH);
    DriverStore(L"oem8.inf", MAX_PATH);
    DriverStore(L"oem7.inf", 4);
    Products();
    Internet();
    Session();
    return 0;
}
