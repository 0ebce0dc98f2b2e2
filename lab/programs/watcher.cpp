// Starts the tool on a machine of the lab and watches it as a user would: its status window, its message boxes (which
// it answers with OK) and its exit code. Orders come from C:\lab\watcher.txt, the report goes where they say, as JSON.
#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "lab_file.h"
#include "watcher_actions.h"
#include "watcher_report.h"
#include "watcher_setup.h"
#include "watcher_windows.h"

namespace watcher
{
namespace
{
constexpr DWORD kSampleMs = 15;
constexpr DWORD kPictureLimitMs = 15000;
constexpr DWORD kSettleMs = 700;  // the first picture of the status window is complete after one tick of its timer

// Each start has its own record, and the Store works at the second one.
constexpr std::pair<const wchar_t*, const wchar_t*> kPutAside[] = {{L"calls.txt", L"calls-first.txt"},
                                                                   {L"winrt-calls.txt", L"winrt-calls-first.txt"},
                                                                   {L"store-undisturbed.txt", L"store.txt"}};

class Watch
{
public:
    explicit Watch(Orders orders) : orders_(std::move(orders)), hook_(LoadLibraryW(L"C:\\lab\\watcher_hook.dll")) {}
    int Run();

private:
    DWORD Now() const { return GetTickCount() - start_; }
    void StartProgram(const std::wstring& commandLine);
    static bool CanWrite(const std::wstring& path);
    HANDLE StartInstance(const std::wstring& arguments, DWORD flags = 0);
    void StartCrowd();
    static void HoldFile(const std::wstring& path, DWORD sharing);
    void Look();
    void LookAtStatus(Instance& instance, int index);
    void LookAtBoxes(const Instance& instance, int index);
    static void LookAtMemory(Instance& instance);
    void Act();
    bool Fires(const When& when) const;
    bool Do(const std::wstring& action);
    void DismissBoxes();
    void TakePicture(const std::wstring& name);
    bool LaterInstanceRuns() const;
    bool AnyRuns() const;
    bool StartsAgain();

    Orders orders_;
    HMODULE hook_;
    DWORD start_ = 0;
    Seen seen_;
    DWORD waitUntil_ = 0;
    int pictures_ = 0;
    Json looked_;  // what the last action saw
};

void Watch::StartProgram(const std::wstring& commandLine)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    std::wstring line = commandLine;
    if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process) == 0)
    {
        std::fprintf(stderr, "watcher: cannot start %ls: %lu\n", commandLine.c_str(), GetLastError());
        std::exit(91);
    }
    CloseHandle(process.hThread);
    seen_.programs.push_back({commandLine, process.hProcess, process.dwProcessId});
}

// Its handle is closed by the end of the watcher.
void Watch::HoldFile(const std::wstring& path, DWORD sharing)
{
    if (CreateFileW(path.c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING, 0, nullptr) == INVALID_HANDLE_VALUE)
    {
        std::fprintf(stderr, "watcher: cannot open %ls: %lu\n", path.c_str(), GetLastError());
        std::exit(91);
    }
}

// Whether somebody else could change the file now. It stays as it is.
bool Watch::CanWrite(const std::wstring& path)
{
    const DWORD shared = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, shared, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    CloseHandle(file);
    return true;
}

// Returns its main thread.
HANDLE Watch::StartInstance(const std::wstring& arguments, DWORD flags)
{
    Instance instance;
    instance.arguments = arguments;
    instance.output = L"C:\\lab\\output-" + std::to_wstring(seen_.instances.size()) + L".txt";
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    const HANDLE output =
        CreateFileW(instance.output.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS, 0, nullptr);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION process{};
    std::wstring line = L"\"" + orders_.program + L"\"";
    if (!arguments.empty())
        line += L" " + arguments;
    const wchar_t* directory = orders_.directory.empty() ? nullptr : orders_.directory.c_str();
    instance.started = Now();
    BOOL started = FALSE;
    for (DWORD attempt = 0; attempt < 5 && started == 0; ++attempt)  // a busy Wine may fail with an internal error
    {
        Sleep(attempt * 200U);
        started =
            CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, flags, nullptr, directory, &startup, &process);
        if (started == 0 && GetLastError() != ERROR_INTERNAL_ERROR)
            break;
    }
    if (started == 0)
    {
        std::fprintf(stderr, "watcher: cannot start %ls: %lu\n", line.c_str(), GetLastError());
        std::exit(91);
    }
    CloseHandle(output);
    instance.process = process.hProcess;
    instance.id = process.dwProcessId;
    seen_.instances.push_back(instance);
    return process.hThread;
}

// All of them are there before the first one runs.
void Watch::StartCrowd()
{
    std::vector<HANDLE> threads;
    for (unsigned long i = 0; i < orders_.crowd; ++i)
        threads.push_back(StartInstance(orders_.arguments, CREATE_SUSPENDED));
    for (const HANDLE thread : threads)
    {
        ResumeThread(thread);
        CloseHandle(thread);
    }
}

bool Watch::LaterInstanceRuns() const
{
    for (size_t i = 1; i < seen_.instances.size(); ++i)
        if (seen_.instances[i].running)
            return true;
    return false;
}

bool Watch::AnyRuns() const
{
    return (!seen_.instances.empty() && seen_.instances[0].running) || LaterInstanceRuns();
}

// The run after the last one has nothing in its way: no failing calls, and nothing is done to it.
bool Watch::StartsAgain()
{
    if (!orders_.then || seen_.timedOut)
        return false;
    const std::wstring standins = L"C:\\lab\\standins\\";
    DeleteFileW((standins + L"faults.txt").c_str());
    for (const auto& [from, to] : kPutAside)
        MoveFileExW((standins + from).c_str(), (standins + to).c_str(), MOVEFILE_REPLACE_EXISTING);
    orders_.whens.clear();
    waitUntil_ = 0;
    const std::wstring arguments = *std::exchange(orders_.then, std::nullopt);
    CloseHandle(StartInstance(arguments));
    return true;
}

// The lab outside takes the picture and removes the request.
void Watch::TakePicture(const std::wstring& name)
{
    if (orders_.pictures.empty())
        return;
    wchar_t number[8];
    std::swprintf(number, 8, L"%02d-", ++pictures_);
    const std::wstring request = orders_.pictures + L"\\" + number + name + L".ask";
    CloseHandle(CreateFileW(request.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    for (DWORD waited = 0; waited < kPictureLimitMs && GetFileAttributesW(request.c_str()) != INVALID_FILE_ATTRIBUTES;
         waited += 20)
        Sleep(20);
}

void Watch::LookAtStatus(Instance& instance, int index)
{
    StatusView view = FindStatusWindow(instance.id);
    if (view.line != instance.status.line || view.visible != instance.status.visible)
    {
        instance.statusSince = Now();
        instance.pictured = false;
    }
    if (!view.SameAs(instance.status))
        seen_.samples.push_back({index, Now(), view});
    instance.status = view;
    if (view.visible && !view.minimised && !instance.pictured && Now() - instance.statusSince >= kSettleMs)
    {
        instance.pictured = true;
        TakePicture(L"status");
    }
}

void Watch::LookAtBoxes(const Instance& instance, int index)
{
    for (HWND window : FindBoxes(instance.id))
    {
        Box* box = nullptr;
        for (Box& known : seen_.boxes)
            if (known.window == window && known.instance == index && known.until == 0)
                box = &known;
        if (box == nullptr)
        {
            Box fresh;
            fresh.window = window;
            fresh.instance = index;
            fresh.since = Now();
            fresh.statusHidden = !FindStatusWindow(instance.id).visible;
            seen_.boxes.push_back(fresh);
            box = &seen_.boxes.back();
        }
        if (!box->asked)
        {
            box->asked = AskIcons(*box, hook_);
            if (box->asked)
            {
                Describe(*box);
                TakePicture(L"box");
            }
        }
    }
    for (Box& box : seen_.boxes)
        if (box.instance == index && box.until == 0 && IsWindow(box.window) == 0)
            box.until = Now();
}

// The most so far. What a process takes between the last look and its end is not seen.
void Watch::LookAtMemory(Instance& instance)
{
    PROCESS_MEMORY_COUNTERS memory{};
    memory.cb = sizeof memory;
    if (K32GetProcessMemoryInfo(instance.process, &memory, sizeof memory) != 0 &&
        memory.PeakWorkingSetSize > instance.peakMemory)
        instance.peakMemory = memory.PeakWorkingSetSize;
}

void Watch::Look()
{
    for (size_t i = 0; i < seen_.instances.size(); ++i)
    {
        Instance& instance = seen_.instances[i];
        if (!instance.running)
            continue;
        const int index = static_cast<int>(i);
        LookAtStatus(instance, index);
        LookAtBoxes(instance, index);
        LookAtMemory(instance);
        if (WaitForSingleObject(instance.process, 0) != WAIT_OBJECT_0)
            continue;
        GetExitCodeProcess(instance.process, &instance.exitCode);
        instance.ended = Now();
        instance.running = false;
        for (Box& box : seen_.boxes)
            if (box.instance == index && box.until == 0)
                box.until = Now();
    }
}

bool Watch::Fires(const When& when) const
{
    if (seen_.instances.empty())
        return false;
    const StatusView& status = seen_.instances[0].status;
    const std::wstring& trigger = when.trigger;
    if (trigger == L"start")
        return true;
    if (trigger == L"window")
        return status.visible;
    if (trigger == L"box")
        return !seen_.boxes.empty() && seen_.boxes[0].asked;
    if (standin::StartsWith(trigger, L"text "))
        return status.line.find(trigger.substr(5)) != std::wstring::npos;
    if (standin::StartsWith(trigger, L"dots "))
        return status.dots == trigger.substr(5);
    if (standin::StartsWith(trigger, L"after "))
        return Now() - seen_.instances[0].started >= std::wcstoul(trigger.c_str() + 6, nullptr, 10);
    if (standin::StartsWith(trigger, L"log "))
        return LogContains(trigger.substr(4));
    if (standin::StartsWith(trigger, L"file "))
        return GetFileAttributesW(trigger.c_str() + 5) != INVALID_FILE_ATTRIBUTES;
    std::fprintf(stderr, "watcher: unknown trigger: %ls\n", trigger.c_str());
    std::exit(90);
}

bool Watch::Do(const std::wstring& action)
{
    const size_t blank = action.find(L' ');
    const std::wstring verb = action.substr(0, blank);
    const std::wstring rest = blank == std::wstring::npos ? std::wstring() : action.substr(blank + 1);
    const HWND status = seen_.instances[0].status.window;
    const HWND front = !seen_.boxes.empty() && seen_.boxes.back().until == 0 ? seen_.boxes.back().window : status;
    if (verb == L"second")
    {
        CloseHandle(StartInstance(rest));
        return true;
    }
    if (verb == L"run")
    {
        StartProgram(rest);
        return true;
    }
    if (verb == L"kill")
        return TerminateProcess(seen_.instances[0].process,
                                static_cast<UINT>(std::wcstoul(rest.c_str(), nullptr, 0))) != 0;
    if (verb == L"crash")
        return CrashThreadOf(status);
    if (verb == L"key")
        return PressKey(rest);
    if (verb == L"click")
        return Click(front, rest);
    if (verb == L"drag")
        return Drag(front, rest);
    if (verb == L"restore")
        return ShowWindow(status, SW_RESTORE) != 0;
    if (verb == L"look")
    {
        looked_ = LookAt(front, hook_);
        return !looked_.is_null();
    }
    if (verb == L"close")
        return CloseWindowByMenu(front);
    if (verb == L"watch")
        return (seen_.event = OpenEventW(SYNCHRONIZE, FALSE, rest.c_str())) != nullptr;
    if (verb == L"deny")
        return DenyKey(rest);
    if (verb == L"delete")
        return DeleteFileW(rest.c_str()) != 0;
    if (verb == L"rename")
        return MoveFileExW(rest.c_str(), (rest + L".renamed").c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
    if (verb == L"replace")
        return MoveFileExW((rest + L".new").c_str(), rest.c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
    if (verb == L"write")
        return CanWrite(rest);
    if (verb == L"wait")
    {
        waitUntil_ = Now() + std::wcstoul(rest.c_str(), nullptr, 10);
        return true;
    }
    std::fprintf(stderr, "watcher: unknown action: %ls\n", action.c_str());
    std::exit(90);
}

// One action at a time, in the order of the orders.
void Watch::Act()
{
    if (Now() < waitUntil_)
        return;
    for (When& when : orders_.whens)
    {
        if (when.done)
            continue;
        if (Fires(when))
        {
            when.done = true;
            const DWORD at = Now();
            const bool done = Do(when.action);
            Json action = {{"at", at},
                           {"trigger", standin::ToUtf8(when.trigger)},
                           {"action", standin::ToUtf8(when.action)},
                           {"done", done}};
            if (!looked_.is_null())
            {
                action["seen"] = std::exchange(looked_, nullptr);
            }
            seen_.actions.push_back(std::move(action));
        }
        return;
    }
}

// The first instance's box stays while there is still something to do beside it.
void Watch::DismissBoxes()
{
    bool busy = LaterInstanceRuns() || Now() < waitUntil_;
    for (const When& when : orders_.whens)
        busy = busy || (!when.done && Fires(when));
    for (Box& box : seen_.boxes)
    {
        if (!box.asked || box.dismissed || box.until != 0 || Now() - box.since < orders_.holdMs ||
            (busy && box.instance == 0))
            continue;
        box.dismissed = PostMessageW(box.window, WM_COMMAND, IDOK, 0) != 0;
    }
}

int Watch::Run()
{
    if (hook_ == nullptr)
    {
        std::fprintf(stderr, "watcher: C:\\lab\\watcher_hook.dll is missing\n");
        return 92;
    }
    SetUpDevices(orders_);
    for (const std::wstring& path : orders_.held)
        HoldFile(path, 0);
    for (const std::wstring& path : orders_.shared)
        HoldFile(path, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    for (const std::wstring& program : orders_.start)
        StartProgram(program);
    start_ = GetTickCount();
    StartCrowd();
    while (AnyRuns() || StartsAgain())
    {
        if (Now() > orders_.timeoutMs)
        {
            seen_.timedOut = true;
            TakePicture(L"timeout");
            for (const Instance& instance : seen_.instances)
                if (instance.running)
                    TerminateProcess(instance.process, 0xDEAD);
        }
        Look();
        Act();
        DismissBoxes();
        if (AnyRuns())
            WaitForSingleObject(
                seen_.instances[0].running ? seen_.instances[0].process : seen_.instances.back().process, kSampleMs);
        else if (Now() < waitUntil_)
            Sleep(kSampleMs);
    }
    const std::string report = Report(seen_);
    const HANDLE file = CreateFileW(orders_.report.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    const BOOL done = WriteFile(file, report.data(), static_cast<DWORD>(report.size()), &written, nullptr);
    CloseHandle(file);
    return done != 0 ? 0 : 93;
}
}  // namespace
}  // namespace watcher

int wmain()
{
    return watcher::Watch(watcher::ReadOrders(L"C:\\lab\\watcher.txt")).Run();
}
