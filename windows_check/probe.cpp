#include "windows_check/probe.h"

#include <windows.h>

#include <atomic>
#include <sstream>

#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr DWORD kLimitMs = 15'000;

std::wstring EndOf(const repair::ProcessHandle& process)
{
    if (!process)
    {
        return L"not started: " + Number(GetLastError());
    }
    if (WaitForSingleObject(process.Get(), kLimitMs) != WAIT_OBJECT_0)
    {
        TerminateProcess(process.Get(), 1);
        WaitForSingleObject(process.Get(), kLimitMs);
        return L"not ended in time";
    }
    DWORD exitCode = 0;
    GetExitCodeProcess(process.Get(), &exitCode);
    return L"exit code " + Hex(exitCode);
}
}  // namespace

std::wstring Answer::operator[](const std::wstring& name) const
{
    const auto found = lines.find(name);
    return found != lines.end() ? found->second : L"no answer: " + end;
}

repair::ProcessHandle StartProbe(const std::wstring& program, const std::wstring& nameAndArgument, HANDLE output,
                                 const wchar_t* currentFolder)
{
    std::wstring command = L"\"" + program + L"\" --probe " + nameAndArgument;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, output != nullptr, CREATE_NO_WINDOW, nullptr,
                       currentFolder, &startup, &process) == 0)
    {
        return {};
    }
    CloseHandle(process.hThread);
    return repair::ProcessHandle(process.hProcess);
}

Answer Ask(const std::wstring& nameAndArgument, const std::wstring& program, const wchar_t* currentFolder)
{
    static std::atomic<int> count = 0;
    const std::wstring path = ThisPc().folder + L"\\answer" + Number(++count) + L".txt";
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    // A file, not a pipe: a process that the answering one leaves behind would hold a pipe open.
    repair::FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                        CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    Answer answer;
    answer.end = EndOf(StartProbe(program, nameAndArgument, file.Get(), currentFolder));
    file.Close();
    const std::string bytes = ReadBytes(path);
    std::wistringstream text(
        std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t)));
    std::wstring name;
    for (std::wstring value; std::getline(text, name, L'=') && std::getline(text, value);)
    {
        answer.lines[name] = value;
    }
    return answer;
}

std::vector<Probe>& AllProbes()
{
    static std::vector<Probe> probes;
    return probes;
}

void Tell(const std::wstring& name, const std::wstring& value)
{
    const std::wstring line = name + L"=" + value + L"\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written,
              nullptr);
}
}  // namespace windows_check
