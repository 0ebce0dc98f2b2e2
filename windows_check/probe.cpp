#include "windows_check/probe.h"

#include <windows.h>

#include <atomic>
#include <sstream>

#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr DWORD kLimitMs = 15'000;

std::string ReadWhole(const std::wstring& path)
{
    const repair::FileHandle file = Hold(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    std::string bytes;
    char block[4096];
    DWORD count = 0;
    while (ReadFile(file.Get(), block, sizeof(block), &count, nullptr) != 0 && count > 0)
    {
        bytes.append(block, count);
    }
    return bytes;
}

std::wstring FromUtf8(const std::string& bytes)
{
    const int length = static_cast<int>(bytes.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, bytes.data(), length, nullptr, 0);
    std::wstring text(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, bytes.data(), length, text.data(), size);
    return text;
}

std::map<std::wstring, std::wstring> Split(const std::wstring& text)
{
    std::map<std::wstring, std::wstring> lines;
    std::wistringstream stream(text);
    for (std::wstring line; std::getline(stream, line);)
    {
        const size_t equals = line.find(L'=');
        if (equals != std::wstring::npos)
        {
            lines[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return lines;
}
}  // namespace

std::wstring Answer::operator[](const std::wstring& name) const
{
    const auto found = lines.find(name);
    if (found != lines.end())
    {
        return found->second;
    }
    if (!hasStarted)
    {
        return L"the program could not be started once more: " + Number(exitCode);
    }
    return hasEnded ? L"no answer, exit code " + Hex(exitCode) : L"no answer in time";
}

Answer Ask(const std::wstring& program, const std::wstring& name, const std::wstring& rest,
           const std::wstring& currentFolder)
{
    static std::atomic<int> count = 0;
    const std::wstring output = ThisPc().folder + L"\\answer" + std::to_wstring(++count) + L".txt";
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    // A file, not a pipe: a process that the answering one leaves behind would hold a pipe open.
    const HANDLE file = CreateFileW(output.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                    CREATE_ALWAYS, 0, nullptr);
    std::wstring command = L"\"" + program + L"\" --probe " + name + (rest.empty() ? L"" : L" ") + rest;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = file;
    PROCESS_INFORMATION process = {};
    Answer answer;
    answer.hasStarted =
        CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                       currentFolder.empty() ? nullptr : currentFolder.c_str(), &startup, &process) != 0;
    if (!answer.hasStarted)
    {
        answer.exitCode = GetLastError();
        CloseHandle(file);
        return answer;
    }
    CloseHandle(file);
    answer.hasEnded = WaitForSingleObject(process.hProcess, kLimitMs) == WAIT_OBJECT_0;
    if (!answer.hasEnded)
    {
        TerminateProcess(process.hProcess, 1);
        WaitForSingleObject(process.hProcess, kLimitMs);
    }
    GetExitCodeProcess(process.hProcess, &answer.exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    answer.lines = Split(FromUtf8(ReadWhole(output)));
    return answer;
}

std::vector<Probe>& AllProbes()
{
    static std::vector<Probe> probes;
    return probes;
}

void Tell(const std::wstring& name, const std::wstring& value)
{
    const std::string line = Utf8(name + L"=" + value + L"\n");
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}
}  // namespace windows_check
