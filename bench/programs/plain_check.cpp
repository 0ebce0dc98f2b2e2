// Floor of a whole run: a plain program that does the work of a run that finds nothing to do. It creates the tool's
// dialog as a hidden window, reads all driver packages, asks for the installed product and writes the same log lines.
// It makes only the calls that this work needs, in their shortest form; it does not follow the tool call by call.
//   plain_check.exe LINES [URL TEMPORARY FINAL]
//   plain_check.exe
// LINES is the log of such a run, whose lines are written again. With the other arguments the bare loop follows while
// the window exists: floor of the memory of a download. Without arguments only the driver packages are read; then the
// number of INFs and the microseconds are printed.
#include "bare_download.h"
#include "stopwatch.h"

#include <windows.h>
#include <msi.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "inventory/setup_api.h"
#include "resources/resource_ids.h"

namespace
{
constexpr GUID kDisplayClass = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr wchar_t kUpgradeCode[] = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";
constexpr wchar_t kLogFolder[] = L"C:\\Program Files\\Tavik\\MIM\\Log\\floor_";
constexpr DWORD kPollMs = 100;
constexpr DWORD kLineCharacters = 2064;
constexpr DWORD kDetailBytes = 4096;

std::unique_ptr<char[]> ReadFileOnce(const std::wstring& path, DWORD& size)
{
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    size = file == INVALID_HANDLE_VALUE ? 0 : GetFileSize(file, nullptr);
    auto data = std::make_unique<char[]>(size + sizeof(wchar_t));
    DWORD read = 0;
    ReadFile(file, data.get(), size, &read, nullptr);
    CloseHandle(file);
    return data;
}

std::vector<std::wstring> ReadLogLines(const wchar_t* path)
{
    DWORD size = 0;
    const auto data = ReadFileOnce(path, size);
    const std::wstring text(reinterpret_cast<const wchar_t*>(data.get()), size / sizeof(wchar_t));
    std::vector<std::wstring> lines;
    for (size_t at = 0, end = 0; (end = text.find(L'\n', at)) != std::wstring::npos; at = end + 1)
    {
        lines.push_back(text.substr(at, end + 1 - at));
    }
    return lines;
}

void Write(HANDLE log, const std::wstring& line)
{
    DWORD written = 0;
    WriteFile(log, line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written, nullptr);
}

// SetupAPI does not list the sections of an INF.
std::vector<std::wstring> ReadSectionNames(const std::wstring& inf)
{
    DWORD size = 0;
    const auto data = ReadFileOnce(inf, size);
    std::vector<std::wstring> names;
    for (const char* at = data.get(); *at != '\0';)
    {
        const char* const end = at + std::strcspn(at, "\r\n");
        if (*at == '[' && end[-1] == ']')
        {
            names.emplace_back(at + 1, end - 1);
        }
        at = end + std::strspn(end, "\r\n");
    }
    return names;
}

void ReadInf(const wchar_t* path, wchar_t* text)
{
    const HINF inf = SetupOpenInfFileW(path, nullptr, INF_STYLE_WIN4, nullptr);
    for (const std::wstring& name : ReadSectionNames(path))
    {
        INFCONTEXT line = {};
        for (BOOL found = SetupFindFirstLineW(inf, name.c_str(), nullptr, &line); found != 0;
             found = SetupFindNextLine(&line, &line))
        {
            SetupGetLineTextW(&line, nullptr, nullptr, nullptr, text, kLineCharacters, nullptr);
        }
    }
    SetupCloseInfFile(inf);
}

// Returns how many INFs were read.
unsigned ReadDriverPackages()
{
    unsigned infs = 0;
    const auto text = std::make_unique<wchar_t[]>(kLineCharacters);
    const auto memory = std::make_unique<BYTE[]>(kDetailBytes);
    auto* const detail = reinterpret_cast<SP_DRVINFO_DETAIL_DATA_W*>(memory.get());
    detail->cbSize = sizeof(*detail);
    const HDEVINFO devices = SetupDiGetClassDevsW(&kDisplayClass, nullptr, nullptr, DIGCF_PRESENT);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices, index, &device) != 0; ++index)
    {
        SetupDiBuildDriverInfoList(devices, &device, SPDIT_COMPATDRIVER);
        SP_DRVINFO_DATA_V2_W driver = {};
        driver.cbSize = sizeof(driver);
        for (DWORD at = 0; SetupDiEnumDriverInfoW(devices, &device, SPDIT_COMPATDRIVER, at, &driver) != 0; ++at)
        {
            SetupDiGetDriverInfoDetailW(devices, &device, &driver, detail, kDetailBytes, nullptr);
            wchar_t place[MAX_PATH] = {};
            SetupGetInfDriverStoreLocationW(detail->InfFileName, nullptr, nullptr, place, MAX_PATH, nullptr);
            ReadInf(place, text.get());
            ++infs;
        }
    }
    SetupDiDestroyDeviceInfoList(devices);
    return infs;
}

INT_PTR CALLBACK IgnoreMessage(HWND, UINT, WPARAM, LPARAM)
{
    return FALSE;
}

// The window, hidden as with -SILENT, with its banner, icon and moving dots, and its message loop.
void ShowWindowUntilClosed(std::atomic<DWORD>& thread, std::atomic<bool>& ready)
{
    thread = GetCurrentThreadId();
    const HINSTANCE instance = GetModuleHandleW(nullptr);
    const HWND dialog = CreateDialogParamW(instance, MAKEINTRESOURCEW(IDD_STATUS), nullptr, IgnoreMessage, 0);
    const HICON icon = LoadIconW(instance, MAKEINTRESOURCEW(IDI_TOOL));
    SendMessageW(dialog, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon));
    const HWND background = CreateWindowExW(0, L"STATIC", L"", WS_CHILD | SS_REALSIZECONTROL | SS_BITMAP, 0, 0, 1, 1,
                                            dialog, nullptr, instance, nullptr);
    const HBITMAP bitmap = LoadBitmapW(instance, MAKEINTRESOURCEW(IDB_BANNER));
    SendMessageW(background, STM_SETIMAGE, IMAGE_BITMAP, reinterpret_cast<LPARAM>(bitmap));
    SetTimer(background, 0, 500, nullptr);
    ready = true;
    MSG message = {};
    while (GetMessageW(&message, nullptr, 0, 0) > 0 && message.message != WM_CLOSE)
    {
        DispatchMessageW(&message);
    }
}

void AskForProduct()
{
    wchar_t product[39] = {};
    wchar_t version[260] = {};
    DWORD size = sizeof(version);
    MsiEnumRelatedProductsW(kUpgradeCode, 0, 0, product);
    RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavik\\HL", L"HLVersion", RRF_RT_REG_SZ, nullptr, version, &size);
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (count == 1)
    {
        const double start = bench::Microseconds();
        const unsigned infs = ReadDriverPackages();
        std::printf("%u %.1f\n", infs, bench::Microseconds() - start);
        return 0;
    }
    const std::vector<std::wstring> lines = ReadLogLines(arguments[1]);
    if (lines.size() < 3)
    {
        return 99;
    }
    const std::wstring name = kLogFolder + std::to_wstring(GetTickCount64()) + L".log";
    const HANDLE log = CreateFileW(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr);
    Write(log, lines[0]);
    std::atomic<DWORD> threadId = 0;
    std::atomic<bool> ready = false;
    std::thread thread([&] { ShowWindowUntilClosed(threadId, ready); });
    while (!ready)
    {
        Sleep(kPollMs);
    }
    Write(log, lines[1]);
    ReadDriverPackages();
    AskForProduct();
    for (size_t i = 2; i < lines.size(); ++i)
    {
        Write(log, lines[i]);
    }
    const int result = count == 5 ? bench::Download(arguments[2], arguments[3], arguments[4]) : 0;
    PostThreadMessageW(threadId, WM_CLOSE, 0, 0);
    thread.join();
    return result;
}
