// Plays a program of the desktop edition: records its start in C:\lab\programs.txt, then stays and exits as the section
// of its name in C:\lab\programs.ini says. It has no window, so that nothing waits for a display. Under the name
// hlcmd.exe it is the command tool: "hlcmd.exe exit" asks the others to end. A deaf program does not listen to that.
#include <windows.h>

#include <cwchar>
#include <string>
#include <string_view>

#include "lab_file.h"

namespace
{
constexpr const wchar_t* kStarts = L"C:\\lab\\programs.txt";
constexpr const wchar_t* kBehaviour = L"C:\\lab\\programs.ini";
constexpr const wchar_t* kExitEvent = L"TavikLabExit";
constexpr DWORD kPollMs = 10;
constexpr DWORD kLimitMs = 2000;

std::wstring ImageName()
{
    wchar_t path[MAX_PATH] = L"";
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring whole = path;
    return whole.substr(whole.find_last_of(L'\\') + 1);
}

// The number under one of the keys deaf, stay and exit; 0 if the machine's description does not give one.
DWORD Behaviour(const std::wstring& image, const wchar_t* key)
{
    wchar_t text[32] = L"";
    GetPrivateProfileStringW(image.c_str(), key, L"0", text, 32, kBehaviour);
    return std::wcstoul(text, nullptr, 0);
}

void RecordStart(const std::wstring& image)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    GetStartupInfoW(&startup);
    const bool hasShow = (startup.dwFlags & STARTF_USESHOWWINDOW) != 0;
    std::wstring folder(GetCurrentDirectoryW(0, nullptr), L'\0');
    folder.resize(GetCurrentDirectoryW(static_cast<DWORD>(folder.size()), folder.data()));
    standin::Journal(kStarts).Append(image + L" pid=" + std::to_wstring(GetCurrentProcessId()) + L"; show=" +
                                     (hasShow ? std::to_wstring(startup.wShowWindow) : L"none") + L"; folder=" +
                                     standin::Quoted(folder) + L"; command=" + standin::Quoted(GetCommandLineW()));
}

// Asks until the event is gone: it goes with the last program that listens.
void AskProgramsToEnd()
{
    for (DWORD waited = 0; waited < kLimitMs; waited += kPollMs)
    {
        const HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, kExitEvent);
        if (event == nullptr)
        {
            return;
        }
        SetEvent(event);
        CloseHandle(event);
        Sleep(kPollMs);
    }
}
}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t* arguments, int)
{
    const std::wstring image = ImageName();
    const bool isCommandTool = lstrcmpiW(image.c_str(), L"hlcmd.exe") == 0;
    const bool isDeaf = Behaviour(image, L"deaf") != 0;
    // Made before the start is recorded: from then on the program can be asked to end.
    const HANDLE exit = isDeaf || isCommandTool ? nullptr : CreateEventW(nullptr, TRUE, FALSE, kExitEvent);
    RecordStart(image);
    if (isCommandTool && !isDeaf && std::wstring_view(arguments) == L"exit")
    {
        AskProgramsToEnd();
    }
    const DWORD stay = Behaviour(image, L"stay");
    if (exit != nullptr)
    {
        WaitForSingleObject(exit, stay);
    }
    else
    {
        Sleep(stay);
    }
    return static_cast<int>(Behaviour(image, L"exit"));
}
