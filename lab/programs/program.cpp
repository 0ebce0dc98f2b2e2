#include "program.h"

#include "lab_file.h"

namespace programs
{
namespace
{
constexpr const wchar_t* kStartsPath = L"C:\\lab\\programs.txt";
constexpr const wchar_t* kBehaviourPath = L"C:\\lab\\programs-behaviour.txt";

std::wstring CurrentFolder()
{
    std::wstring folder(GetCurrentDirectoryW(0, nullptr), L'\0');
    folder.resize(GetCurrentDirectoryW(static_cast<DWORD>(folder.size()), folder.data()));
    return folder;
}
}  // namespace

std::wstring ImageName()
{
    wchar_t path[MAX_PATH] = L"";
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring whole = path;
    return whole.substr(whole.find_last_of(L'\\') + 1);
}

void RecordStart()
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    GetStartupInfoW(&startup);
    const bool hasShow = (startup.dwFlags & STARTF_USESHOWWINDOW) != 0;
    standin::Journal starts(kStartsPath);
    starts.Append(ImageName() + L" pid=" + std::to_wstring(GetCurrentProcessId()) + L"; show=" +
                  (hasShow ? std::to_wstring(startup.wShowWindow) : std::wstring(L"none")) + L"; folder=" +
                  standin::Quoted(CurrentFolder()) + L"; command=" + standin::Quoted(GetCommandLineW()));
}

std::optional<std::wstring> Behaviour(const std::wstring& what)
{
    const std::wstring wanted = standin::Lower(ImageName() + L"." + what);
    std::optional<std::wstring> value;
    for (const standin::Line& line : standin::ReadLines(kBehaviourPath))
    {
        const std::size_t equal = line.text.find(L'=');
        if (equal != std::wstring::npos && standin::Lower(standin::Trim(line.text.substr(0, equal))) == wanted)
        {
            value = standin::Trim(line.text.substr(equal + 1));
        }
    }
    return value;
}

bool IsYes(const std::wstring& what)
{
    return Behaviour(what) == L"yes";
}

DWORD StayTime()
{
    const std::wstring stay = Behaviour(L"stay").value_or(L"0");
    unsigned long long milliseconds = 0;
    if (stay != L"forever" && standin::ParseNumber(stay, milliseconds))
    {
        return static_cast<DWORD>(milliseconds);
    }
    return stay == L"forever" ? INFINITE : 0;
}

int ExitCode()
{
    unsigned long long code = 0;
    standin::ParseNumber(Behaviour(L"exit").value_or(L"0"), code);
    return static_cast<int>(static_cast<unsigned>(code));
}
}  // namespace programs
