// Floor of a run that finds nothing to do: makes the system calls that the tool makes when the application is from the
// driver's release and -SILENT is given, without anything of the tool between them.
//   same_calls.exe LINES [URL TEMPORARY FINAL]
// LINES is the log of such a run of the tool: the lines are written to a log again, where the tool would write them.
// With the other arguments the bare loop follows, while the window is there: floor of the memory of a download.
// scripts/bench compares the calls into SetupAPI and Windows Installer with those of the tool.
#include "bare_download.h"
#include "setup_calls.h"

#include <windows.h>
#include <msi.h>
#include <shellapi.h>

#include <atomic>
#include <thread>

#include "resources/resource_ids.h"

namespace
{
constexpr wchar_t kUpgradeCode[] = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";
constexpr wchar_t kLogFolder[] = L"C:\\Program Files\\Tavik\\MIM\\Log\\";
constexpr DWORD kPollMs = 100;

std::vector<std::wstring> ReadLines(const wchar_t* path)
{
    std::vector<std::wstring> lines;
    const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD size = GetFileSize(file, nullptr);
    std::wstring text(size / sizeof(wchar_t), L'\0');
    DWORD read = 0;
    ReadFile(file, text.data(), size, &read, nullptr);
    CloseHandle(file);
    for (size_t at = 0, end = 0; (end = text.find(L'\n', at)) != std::wstring::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

HANDLE OpenLog()
{
    wchar_t windows[260] = {};
    GetWindowsDirectoryW(windows, 260);
    if (GetFileAttributesW(kLogFolder) == INVALID_FILE_ATTRIBUTES)  // asked for as by the tool
        return INVALID_HANDLE_VALUE;
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    const std::wstring name = std::wstring(kLogFolder) + L"floor_" + std::to_wstring(now.wHour) + L"_" +
                              std::to_wstring(now.wMinute) + L"_" + std::to_wstring(now.wSecond) + L"_" +
                              std::to_wstring(now.wMilliseconds) + L".log";
    return CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

void Write(HANDLE log, const std::wstring& line)
{
    DWORD written = 0;
    WriteFile(log, line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written, nullptr);
    WriteFile(log, L"\n", sizeof(wchar_t), &written, nullptr);
}

INT_PTR CALLBACK Dialog(HWND, UINT message, WPARAM wParam, LPARAM)
{
    if (message != WM_CTLCOLORSTATIC)
        return 0;
    SetTextColor(reinterpret_cast<HDC>(wParam), RGB(240, 255, 255));
    SetBkMode(reinterpret_cast<HDC>(wParam), TRANSPARENT);
    return reinterpret_cast<INT_PTR>(GetStockObject(NULL_BRUSH));
}

HFONT MakeFont(int points, int dots)
{
    return CreateFontW(-MulDiv(points, dots, 72), 0, 0, 0, FW_NORMAL, 0, 0, 0, 0, 0, 0, 0, 0, L"Segoe UI");
}

// The window, hidden as with -SILENT, and its message loop.
void ShowWindowUntilClosed(std::atomic<DWORD>& thread, std::atomic<bool>& ready)
{
    thread = GetCurrentThreadId();
    const HINSTANCE instance = GetModuleHandleW(nullptr);
    const HWND dialog = CreateDialogParamW(instance, MAKEINTRESOURCEW(IDD_STATUS), nullptr, Dialog, 0);
    const LPARAM icon = reinterpret_cast<LPARAM>(LoadIconW(instance, MAKEINTRESOURCEW(IDI_TOOL)));
    SendMessageW(dialog, WM_SETICON, ICON_BIG, icon);
    SendMessageW(dialog, WM_SETICON, ICON_SMALL, icon);
    SetWindowTextW(dialog, L"Tavik Software Compatibility Tool");
    RECT client = {};
    GetClientRect(dialog, &client);
    const HWND background = CreateWindowExW(0, L"STATIC", L"", WS_CHILD | SS_REALSIZECONTROL | SS_BITMAP, 0, 0,
                                            client.right, client.bottom, dialog, nullptr, instance, nullptr);
    const LPARAM bitmap = reinterpret_cast<LPARAM>(LoadBitmapW(instance, MAKEINTRESOURCEW(IDB_BANNER)));
    SendMessageW(background, STM_SETIMAGE, IMAGE_BITMAP, bitmap);
    for (const int control : {IDC_PROGRESS, IDC_STATUS, IDC_HEADING, IDC_STATUS})
        SetDlgItemTextW(dialog, control, L"Checking System.");
    InvalidateRect(dialog, nullptr, FALSE);
    const HWND heading = GetDlgItem(dialog, IDC_HEADING);
    const HDC context = GetDC(heading);
    const int dots = GetDeviceCaps(context, LOGPIXELSY);
    ReleaseDC(heading, context);
    const HFONT large = MakeFont(20, dots);
    const HFONT small = MakeFont(12, dots);
    SendDlgItemMessageW(dialog, IDC_HEADING, WM_SETFONT, reinterpret_cast<WPARAM>(large), TRUE);
    SendDlgItemMessageW(dialog, IDC_PROGRESS, WM_SETFONT, reinterpret_cast<WPARAM>(small), TRUE);
    SendDlgItemMessageW(dialog, IDC_MINIMISE, WM_SETFONT, reinterpret_cast<WPARAM>(small), TRUE);
    SetDlgItemTextW(dialog, IDC_MINIMISE, L"\u2014");
    SetWindowLongW(dialog, GWL_STYLE, GetWindowLongW(dialog, GWL_STYLE) | WS_MINIMIZEBOX);
    SetTimer(background, 0, 500, nullptr);
    ready = true;
    MSG message = {};
    while (GetMessageW(&message, nullptr, 0, 0) > 0 && message.message != WM_CLOSE)
    {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    DeleteObject(small);
    DeleteObject(large);
}

void AskRegistry(const wchar_t* path, const wchar_t* name)
{
    HKEY key = nullptr;
    wchar_t text[260] = {};
    DWORD size = 0;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key);
    RegGetValueW(key, L"", name, RRF_RT_REG_SZ, nullptr, nullptr, &size);
    RegGetValueW(key, L"", name, RRF_RT_REG_SZ, nullptr, text, &size);
    RegCloseKey(key);
}

void AskInstaller()
{
    wchar_t product[39] = {};
    for (DWORD index = 0; MsiEnumRelatedProductsW(kUpgradeCode, 0, index, product) == ERROR_SUCCESS; ++index)
    {
        wchar_t package[MAX_PATH] = {};
        DWORD length = MAX_PATH;
        MsiGetProductInfoW(product, INSTALLPROPERTY_LOCALPACKAGE, package, &length);
    }
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    int words = 0;
    LocalFree(CommandLineToArgvW(GetCommandLineW(), &words));
    const std::vector<std::wstring> lines = ReadLines(count >= 2 ? arguments[1] : L"");
    if (lines.size() < 3)
        return 99;
    const HANDLE log = OpenLog();
    Write(log, lines[0]);

    std::atomic<DWORD> threadId = 0;
    std::atomic<bool> ready = false;
    std::thread thread([&] { ShowWindowUntilClosed(threadId, ready); });
    while (!ready)
        Sleep(kPollMs);
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, L"Floor");
    AskRegistry(L"SOFTWARE\\Tavik\\HL", L"HLVersion");
    AskRegistry(L"SOFTWARE\\Tavik\\HL", L"DriverVersion");
    Write(log, lines[1]);
    AskRegistry(L"SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E968-E325-11CE-BFC1-08002BE10318}\\0001",
                L"ReleaseVersion");
    std::vector<std::wstring> names;
    bench::MakeSetupCalls([&](const std::wstring& inf) -> const std::vector<std::wstring>& {
        return names = bench::ReadSectionNames(inf);
    });
    for (size_t i = 2; i + 1 < lines.size(); ++i)
        Write(log, lines[i]);
    AskInstaller();
    Write(log, lines.back());
    const int result = count == 5 ? bench::Download(arguments[2], arguments[3], arguments[4]) : 0;
    SetEvent(event);
    CloseHandle(event);
    PostThreadMessageW(threadId, WM_CLOSE, 0, 0);
    thread.join();
    return result;
}
