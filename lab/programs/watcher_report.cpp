#include "watcher_report.h"

#include <tlhelp32.h>

#include <algorithm>

#include "lab_file.h"

namespace watcher
{
namespace
{
using standin::ToUtf8;

Json Describe(const Instance& instance)
{
    return {
        {"arguments", ToUtf8(instance.arguments)},
        {"started", instance.started},
        {"ended", instance.ended},
        {"exit_code", static_cast<LONG>(instance.exitCode)},
        {"peak_memory", instance.peakMemory},
    };
}

Json Describe(const Sample& sample)
{
    const StatusView& view = sample.view;
    return {
        {"instance", sample.instance},
        {"at", sample.at},
        {"exists", view.window != nullptr},
        {"visible", view.visible},
        {"minimised", view.minimised},
        {"x", view.place.left},
        {"y", view.place.top},
        {"width", view.place.right - view.place.left},
        {"height", view.place.bottom - view.place.top},
        {"title", ToUtf8(view.title)},
        {"line", ToUtf8(view.line)},
        {"dots", ToUtf8(view.dots)},
        {"heading", ToUtf8(view.heading)},
        {"mark", ToUtf8(view.mark)},
    };
}

Json Describe(const Box& box)
{
    Json buttons = Json::array();
    for (const std::wstring& button : box.buttons)
    {
        buttons.push_back(ToUtf8(button));
    }
    return {
        {"instance", box.instance},
        {"since", box.since},
        {"until", box.until},
        {"caption", ToUtf8(box.caption)},
        {"text", ToUtf8(box.text)},
        {"icon", ToUtf8(box.icon)},
        {"title_icon", ToUtf8(box.titleIcon)},
        {"buttons", buttons},
        {"status_hidden", box.statusHidden},
        {"foreground", box.foreground},
    };
}

Json Describe(const Program& program)
{
    DWORD code = 0;
    GetExitCodeProcess(program.process, &code);
    return {
        {"command_line", ToUtf8(program.commandLine)},
        {"running", WaitForSingleObject(program.process, 0) == WAIT_TIMEOUT},
        {"exit_code", static_cast<LONG>(code)},
    };
}

template <class Item>
Json DescribeAll(const std::vector<Item>& items)
{
    Json all = Json::array();
    for (const Item& item : items)
    {
        all.push_back(Describe(item));
    }
    return all;
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
Json RunningPrograms()
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
    Json running = Json::array();
    for (const std::wstring& name : names)
    {
        const bool isOwn = std::any_of(std::begin(own), std::end(own),
                                       [&](const wchar_t* one) { return lstrcmpiW(one, name.c_str()) == 0; });
        if (!isOwn && !name.empty())  // a process that still has no name is ending
        {
            running.push_back(ToUtf8(name));
        }
    }
    return running;
}
}  // namespace

bool WriteReport(const Seen& seen, const std::wstring& path)
{
    std::string event;
    if (seen.event != nullptr)
    {
        event = WaitForSingleObject(seen.event, 0) == WAIT_OBJECT_0 ? "set" : "not set";
    }
    const Json report = {
        {"timed_out", seen.timedOut},
        {"instances", DescribeAll(seen.instances)},
        {"status", DescribeAll(seen.samples)},
        {"boxes", DescribeAll(seen.boxes)},
        {"actions", seen.actions},
        {"started_before", DescribeAll(seen.programs)},
        {"event", event},
        {"still_running", RunningPrograms()},
    };
    const std::string text = report.dump(1);
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    const BOOL done = WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
    return done != 0;
}
}  // namespace watcher
