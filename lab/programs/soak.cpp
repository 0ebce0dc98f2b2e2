// Starts the tool many times, one after the other, and prints what the system holds before and after.
//   soak.exe COUNT ARGUMENTS...
// Prints, one per line: "before" and "after" with windows, handles of all processes and processes; then "codes" with
// the number of runs for each exit code.
#include <windows.h>

#include <winternl.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace
{
constexpr wchar_t kTool[] = L"C:\\lab\\TavikCompatibilityTool.exe";
constexpr DWORD kLimitMs = 60000;
constexpr DWORD kSettleMs = 300;  // services close what they had open for a client a little after it has ended

BOOL CALLBACK CountWindow(HWND, LPARAM count)
{
    ++*reinterpret_cast<unsigned*>(count);
    return TRUE;
}

// Handles and processes.
std::pair<unsigned long, unsigned> CountHandles()
{
    std::vector<char> buffer(1 << 20);
    ULONG size = 0;
    if (NtQuerySystemInformation(SystemProcessInformation, buffer.data(), static_cast<ULONG>(buffer.size()), &size) !=
        0)
    {
        return {};
    }
    std::pair<unsigned long, unsigned> counts{};
    for (const char* at = buffer.data();;)
    {
        const auto* process = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(at);
        counts.first += process->HandleCount;
        ++counts.second;
        if (process->NextEntryOffset == 0)
        {
            return counts;
        }
        at += process->NextEntryOffset;
    }
}

void Tell(const char* when)
{
    Sleep(kSettleMs);
    unsigned windows = 0;
    EnumWindows(CountWindow, reinterpret_cast<LPARAM>(&windows));
    const auto [handles, processes] = CountHandles();
    std::printf("%s windows=%u handles=%lu processes=%u\n", when, windows, handles, processes);
}

DWORD RunOnce(const std::wstring& commandLine)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    std::wstring line = commandLine;
    if (CreateProcessW(kTool, line.data(), nullptr, nullptr, FALSE, 0, nullptr, L"C:\\windows", &startup, &process) ==
        0)
    {
        return 0xBAD;
    }
    if (WaitForSingleObject(process.hProcess, kLimitMs) != WAIT_OBJECT_0)
    {
        TerminateProcess(process.hProcess, 0xDEAD);
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return code;
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    const unsigned long runs = count > 1 ? std::wcstoul(arguments[1], nullptr, 10) : 1;
    std::wstring commandLine = L"\"" + std::wstring(kTool) + L"\"";
    for (int i = 2; i < count; ++i)
    {
        commandLine += L" " + std::wstring(arguments[i]);
    }
    std::map<DWORD, unsigned> codes;
    Tell("before");
    for (unsigned long i = 0; i < runs; ++i)
    {
        ++codes[RunOnce(commandLine)];
    }
    Tell("after");
    std::printf("codes");
    for (const auto& [code, times] : codes)
    {
        std::printf(" %ld=%u", static_cast<long>(code), times);
    }
    std::printf("\n");
    return 0;
}
