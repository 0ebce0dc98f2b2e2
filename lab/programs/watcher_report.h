// What the watcher has seen, and its report of it.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "watcher_windows.h"

namespace watcher
{
struct Sample
{
    int instance;
    DWORD at;
    StatusView view;
};

struct Instance
{
    std::wstring arguments, output;
    HANDLE process = nullptr;
    DWORD id = 0;
    DWORD started = 0, ended = 0;
    DWORD exitCode = 0;
    size_t peakMemory = 0;  // bytes of its working set
    bool running = true;
    StatusView status;
    DWORD statusSince = 0;
    bool pictured = false;
};

struct Program
{
    std::wstring commandLine;
    HANDLE process;
    DWORD id;
};

// Times are milliseconds after the start of the first instance.
struct Seen
{
    std::vector<Instance> instances;
    std::vector<Program> programs;  // those that ran before the tool, and those that an action started
    std::vector<Sample> samples;    // of the status window, one for each change
    std::vector<Box> boxes;
    Json actions = Json::array();
    HANDLE event = nullptr;  // kept open, so that it can be asked when the program that made it has ended
    bool timedOut = false;
};

// Writes the report as JSON.
bool WriteReport(const Seen& seen, const std::wstring& path);
}  // namespace watcher
