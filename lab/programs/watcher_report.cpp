#include "watcher_report.h"

#include <tlhelp32.h>

#include "watcher_json.h"

namespace watcher
{
namespace
{
std::string Describe(const Sample& sample)
{
    const StatusView& view = sample.view;
    Json json;
    json.Add("instance", sample.instance).Add("at", sample.at).AddFlag("exists", view.window != nullptr);
    json.AddFlag("visible", view.visible).AddFlag("minimised", view.minimised);
    json.Add("x", view.place.left).Add("y", view.place.top);
    json.Add("width", view.place.right - view.place.left).Add("height", view.place.bottom - view.place.top);
    json.Add("title", view.title)
        .Add("line", view.line)
        .Add("dots", view.dots)
        .Add("heading", view.heading)
        .Add("mark", view.mark);
    return json.Text();
}

std::string Describe(const Box& box)
{
    std::vector<std::string> buttons;
    for (const std::wstring& button : box.buttons)
        buttons.push_back(JsonText(button));
    Json json;
    json.Add("instance", box.instance).Add("since", box.since).Add("until", box.until).Add("caption", box.caption);
    json.Add("text", box.text)
        .Add("icon", box.icon)
        .Add("title_icon", box.titleIcon)
        .AddRaw("buttons", JsonList(buttons));
    json.AddFlag("status_hidden", box.statusHidden).AddFlag("foreground", box.foreground);
    return json.Text();
}

constexpr DWORD kNameWaitMs = 2000;

// Names of all processes. One that is just being started has no name yet, and says so.
std::vector<std::wstring> ProcessNames(bool& isComplete)
{
    std::vector<std::wstring> names;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    isComplete = true;
    for (BOOL more = Process32FirstW(snapshot, &entry); more != 0; more = Process32NextW(snapshot, &entry))
    {
        isComplete = isComplete && entry.szExeFile[0] != L'\0';
        names.emplace_back(entry.szExeFile);
    }
    CloseHandle(snapshot);
    return names;
}

// What still runs besides Wine's own services.
std::vector<std::string> RunningPrograms()
{
    const wchar_t* own[] = {L"watcher.exe", L"services.exe", L"winedevice.exe", L"plugplay.exe", L"svchost.exe",
                            L"rpcss.exe",   L"explorer.exe", L"conhost.exe",    L"wineboot.exe", L"start.exe"};
    bool isComplete = false;
    std::vector<std::wstring> names = ProcessNames(isComplete);
    for (DWORD waited = 0; !isComplete && waited < kNameWaitMs; waited += 20)
    {
        Sleep(20);
        names = ProcessNames(isComplete);
    }
    std::vector<std::string> running;
    for (const std::wstring& name : names)
    {
        bool isOwn = name.empty();  // still none after all that time: it is ending
        for (const wchar_t* one : own)
            isOwn = isOwn || lstrcmpiW(one, name.c_str()) == 0;
        if (!isOwn)
            running.push_back(JsonText(name));
    }
    return running;
}
}  // namespace

std::string Report(const Seen& seen)
{
    const wchar_t* event = L"";
    if (seen.event != nullptr)
        event = WaitForSingleObject(seen.event, 0) == WAIT_OBJECT_0 ? L"set" : L"not set";
    std::vector<std::string> instances, samples, boxes, programs;
    for (const Instance& instance : seen.instances)
        instances.push_back(Json()
                                .Add("arguments", instance.arguments)
                                .Add("started", instance.started)
                                .Add("ended", instance.ended)
                                .Add("exit_code", static_cast<LONG>(instance.exitCode))
                                .Add("peak_memory", static_cast<long long>(instance.peakMemory))
                                .Text());
    for (const Sample& sample : seen.samples)
        samples.push_back(Describe(sample));
    for (const Box& box : seen.boxes)
        boxes.push_back(Describe(box));
    for (const Program& program : seen.programs)
    {
        DWORD code = 0;
        GetExitCodeProcess(program.process, &code);
        const bool running = WaitForSingleObject(program.process, 0) == WAIT_TIMEOUT;
        programs.push_back(Json()
                               .Add("command_line", program.commandLine)
                               .AddFlag("running", running)
                               .Add("exit_code", static_cast<LONG>(code))
                               .Text());
    }
    Json json;
    json.AddFlag("timed_out", seen.timedOut)
        .AddRaw("instances", JsonList(instances))
        .AddRaw("status", JsonList(samples));
    json.AddRaw("boxes", JsonList(boxes))
        .AddRaw("actions", JsonList(seen.actions))
        .AddRaw("started_before", JsonList(programs));
    json.Add("event", event).AddRaw("still_running", JsonList(RunningPrograms()));
    return json.Text();
}
}  // namespace watcher
