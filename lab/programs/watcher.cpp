// Starts the tool on a machine of the lab and watches it as a user would: its status window, its message boxes (which
// it answers with OK) and its exit code. Orders come from C:\lab\watcher.json, the report goes where they say.
#include "watcher.h"

#include <psapi.h>

#include <filesystem>
#include <fstream>
#include <utility>

#include "lab_file.h"

namespace watcher
{
namespace
{
constexpr DWORD kSampleMs = 15;
constexpr DWORD kPictureLimitMs = 15000;
constexpr DWORD kSettleMs = 700;  // the first picture of the status window is complete after one tick of its timer
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr const wchar_t* kStandins = L"C:\\lab\\standins\\";

// Each start has its own record; at the second start the Store does not fail.
constexpr std::pair<const wchar_t*, const wchar_t*> kPutAside[] = {{L"calls.txt", L"calls-first.txt"},
                                                                   {L"winrt-calls.txt", L"winrt-calls-first.txt"},
                                                                   {L"store-undisturbed.txt", L"store.txt"}};

// The handle stays open until the watcher ends.
void HoldFile(const std::wstring& path, DWORD sharing)
{
    if (CreateFileW(path.c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING, 0, nullptr) == INVALID_HANDLE_VALUE)
    {
        Refuse(L"cannot open " + path + L": error " + std::to_wstring(GetLastError()));
    }
}

// Tries again while a busy Wine fails with an internal error.
PROCESS_INFORMATION StartProcess(std::wstring line, const std::wstring& directory, HANDLE output, DWORD flags)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = output == nullptr ? 0 : STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION process{};
    const wchar_t* const folder = directory.empty() ? nullptr : directory.c_str();
    for (DWORD attempt = 0; attempt < 5; ++attempt)
    {
        Sleep(attempt * 200U);
        if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, output != nullptr, flags, nullptr, folder, &startup,
                           &process) != 0)
        {
            return process;
        }
        if (GetLastError() != ERROR_INTERNAL_ERROR)
        {
            break;
        }
    }
    Refuse(L"cannot start " + line + L": error " + std::to_wstring(GetLastError()));
}

// The most so far. What a process takes between the last sample and its end is not seen.
void LookAtMemory(Instance& instance)
{
    PROCESS_MEMORY_COUNTERS memory{};
    memory.cb = sizeof memory;
    if (K32GetProcessMemoryInfo(instance.process, &memory, sizeof memory) != 0 &&
        memory.PeakWorkingSetSize > instance.peakMemory)
    {
        instance.peakMemory = memory.PeakWorkingSetSize;
    }
}
}  // namespace

Watch::Watch(Orders given) : orders(std::move(given)), hook(LoadLibraryW(L"C:\\lab\\watcher_hook.dll")) {}

HWND Watch::FrontWindow() const
{
    const bool isBoxUp = !boxes.empty() && boxes.back().until == 0;
    return isBoxUp ? boxes.back().window : StatusWindow();
}

void Watch::StartProgram(const std::wstring& commandLine)
{
    const PROCESS_INFORMATION process = StartProcess(commandLine, {}, nullptr, 0);
    CloseHandle(process.hThread);
    programs_.push_back({commandLine, process.hProcess});
}

HANDLE Watch::StartInstance(const std::wstring& arguments, DWORD flags)
{
    Instance instance;
    instance.arguments = arguments;
    const std::wstring file = L"C:\\lab\\output-" + std::to_wstring(instances.size()) + L".txt";
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    const HANDLE output =
        CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS, 0, nullptr);
    instance.started = Now();
    const std::wstring line = L"\"" + orders.program + (arguments.empty() ? L"\"" : L"\" ") + arguments;
    const PROCESS_INFORMATION process = StartProcess(line, orders.directory, output, flags);
    CloseHandle(output);
    instance.process = process.hProcess;
    instance.id = process.dwProcessId;
    instances.push_back(instance);
    return process.hThread;
}

// Creates all instances before it lets the first one run.
void Watch::StartCrowd()
{
    std::vector<HANDLE> threads;
    for (unsigned i = 0; i < orders.crowd; ++i)
    {
        threads.push_back(StartInstance(orders.arguments, CREATE_SUSPENDED));
    }
    for (const HANDLE thread : threads)
    {
        ResumeThread(thread);
        CloseHandle(thread);
    }
}

bool Watch::AnyRuns(size_t from) const
{
    bool runs = false;
    for (size_t i = from; i < instances.size(); ++i)
    {
        runs = runs || instances[i].running;
    }
    return runs;
}

// The follow-up run is undisturbed: no call fails and no action runs.
bool Watch::StartsAgain()
{
    if (!orders.then || timedOut_)
    {
        return false;
    }
    const std::wstring standins = kStandins;
    DeleteFileW((standins + L"faults.txt").c_str());
    for (const auto& [from, to] : kPutAside)
    {
        MoveFileExW((standins + from).c_str(), (standins + to).c_str(), MOVEFILE_REPLACE_EXISTING);
    }
    orders.whens.clear();
    waitUntil = 0;
    const std::wstring arguments = *std::exchange(orders.then, std::nullopt);
    CloseHandle(StartInstance(arguments));
    return true;
}

// The lab outside takes the picture and removes the request.
void Watch::TakePicture(const std::wstring& name)
{
    if (orders.pictures.empty())
    {
        return;
    }
    wchar_t number[8];
    std::swprintf(number, 8, L"%02d-", ++pictures_);
    const std::wstring request = orders.pictures + L"\\" + number + name + L".ask";
    CloseHandle(CreateFileW(request.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    for (DWORD waited = 0; waited < kPictureLimitMs && GetFileAttributesW(request.c_str()) != INVALID_FILE_ATTRIBUTES;
         waited += 20)
    {
        Sleep(20);
    }
}

void Watch::LookAtStatus(size_t index)
{
    Instance& instance = instances[index];
    const StatusView view = FindStatusWindow(instance.id);
    if (view.line != instance.status.line || view.visible != instance.status.visible)
    {
        instance.statusSince = Now();
        instance.pictured = false;
    }
    const bool isNotYetThere = instance.status.seen.is_null() && view.window == nullptr;
    if (view.seen != instance.status.seen && !isNotYetThere)
    {
        Json sample = {{"instance", index}, {"at", Now()}};
        sample.update(view.seen);
        samples_.push_back(std::move(sample));
    }
    instance.status = view;
    if (view.visible && !view.minimised && !instance.pictured && Now() - instance.statusSince >= kSettleMs)
    {
        instance.pictured = true;
        TakePicture(L"status");
    }
}

void Watch::LookAtBoxes(size_t index)
{
    for (HWND window : FindBoxes(instances[index].id))
    {
        ShownBox* box = nullptr;
        for (ShownBox& known : boxes)
        {
            box = known.window == window && known.instance == index && known.until == 0 ? &known : box;
        }
        if (box == nullptr)
        {
            box = &boxes.emplace_back();
            box->window = window;
            box->instance = index;
            box->since = Now();
            box->statusHidden = !FindStatusWindow(instances[index].id).visible;
        }
        if (!box->asked)
        {
            Describe(*box, hook);
            TakePicture(L"box");
        }
    }
    for (ShownBox& box : boxes)
    {
        if (box.instance == index && box.until == 0 && IsWindow(box.window) == 0)
        {
            box.until = Now();
        }
    }
}

void Watch::Look()
{
    for (size_t index = 0; index < instances.size(); ++index)
    {
        Instance& instance = instances[index];
        if (!instance.running)
        {
            continue;
        }
        LookAtStatus(index);
        LookAtBoxes(index);
        LookAtMemory(instance);
        if (WaitForSingleObject(instance.process, 0) != WAIT_OBJECT_0)
        {
            continue;
        }
        GetExitCodeProcess(instance.process, &instance.exitCode);
        instance.ended = Now();
        instance.running = false;
        for (ShownBox& box : boxes)
        {
            box.until = box.instance == index && box.until == 0 ? Now() : box.until;
        }
    }
}

// One action at a time, in the order of the orders.
void Watch::Act()
{
    size_t next = 0;
    while (next < orders.whens.size() && orders.whens[next].done)
    {
        ++next;
    }
    if (Now() < waitUntil || next == orders.whens.size() || !Fires(*this, orders.whens[next].trigger))
    {
        return;
    }
    When& when = orders.whens[next];
    when.done = true;
    const DWORD at = Now();
    const bool done = Perform(*this, when.action);
    Json action = {{"at", at},
                   {"trigger", standin::ToUtf8(when.trigger)},
                   {"action", standin::ToUtf8(when.action)},
                   {"done", done}};
    if (!looked.is_null())
    {
        action["seen"] = std::exchange(looked, nullptr);
    }
    actions_.push_back(std::move(action));
}

// Leave the first instance's box open while actions are still pending.
void Watch::DismissBoxes()
{
    bool busy = AnyRuns(1) || Now() < waitUntil;
    for (const When& when : orders.whens)
    {
        busy = busy || (!when.done && Fires(*this, when.trigger));
    }
    for (ShownBox& box : boxes)
    {
        const bool isOpen = box.asked && !box.dismissed && box.until == 0;
        if (isOpen && Now() - box.since >= orders.holdMs && (!busy || box.instance != 0))
        {
            box.dismissed = PostMessageW(box.window, WM_COMMAND, IDOK, 0) != 0;
        }
    }
}

void Watch::EndAll()
{
    timedOut_ = true;
    TakePicture(L"timeout");
    for (const Instance& instance : instances)
    {
        if (instance.running)
        {
            TerminateProcess(instance.process, 0xDEAD);
        }
    }
}

bool Watch::WriteReport() const
{
    Json report = {
        {"timed_out", timedOut_}, {"instances", Json::array()},      {"status", samples_}, {"boxes", Json::array()},
        {"actions", actions_},    {"started_before", Json::array()}, {"event", ""}};
    for (const Instance& instance : instances)
    {
        report["instances"].push_back({{"arguments", standin::ToUtf8(instance.arguments)},
                                       {"started", instance.started},
                                       {"ended", instance.ended},
                                       {"exit_code", static_cast<LONG>(instance.exitCode)},
                                       {"peak_memory", instance.peakMemory}});
    }
    for (const ShownBox& box : boxes)
    {
        Json shown = {{"instance", box.instance},
                      {"since", box.since},
                      {"until", box.until},
                      {"status_hidden", box.statusHidden}};
        shown.update(box.seen);
        report["boxes"].push_back(std::move(shown));
    }
    for (const Program& program : programs_)
    {
        report["started_before"].push_back({{"command_line", standin::ToUtf8(program.commandLine)},
                                            {"running", WaitForSingleObject(program.process, 0) == WAIT_TIMEOUT}});
    }
    if (event != nullptr)
    {
        report["event"] = WaitForSingleObject(event, 0) == WAIT_OBJECT_0 ? "set" : "not set";
    }
    std::ofstream file(std::filesystem::path(orders.report), std::ios::binary);
    return static_cast<bool>(file << report.dump(1));
}

int Watch::Run()
{
    if (hook == nullptr)
    {
        Refuse(L"C:\\lab\\watcher_hook.dll is missing: build the lab again");
    }
    SetUpDevices(orders.registry);
    for (const std::wstring& path : orders.held)
    {
        HoldFile(path, 0);
    }
    for (const std::wstring& path : orders.shared)
    {
        HoldFile(path, kShareAll);
    }
    for (const std::wstring& program : orders.start)
    {
        StartProgram(program);
    }
    start = GetTickCount();
    StartCrowd();
    while (AnyRuns() || StartsAgain())
    {
        if (Now() > orders.timeoutMs)
        {
            EndAll();
        }
        Look();
        Act();
        DismissBoxes();
        if (AnyRuns())
        {
            const Instance& running = instances[0].running ? instances[0] : instances.back();
            WaitForSingleObject(running.process, kSampleMs);
        }
        else if (Now() < waitUntil)
        {
            Sleep(kSampleMs);
        }
    }
    return WriteReport() ? 0 : 93;
}
}  // namespace watcher

int wmain()
{
    return watcher::Watch(watcher::ReadOrders(L"C:\\lab\\watcher.json")).Run();
}
