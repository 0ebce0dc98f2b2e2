// run: starts the tool in a safe place, waits for its end, reports its outcome, and installs again what a run has lost.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "base/files.h"
#include "base/log.h"
#include "companion/ascii.h"
#include "companion/catalogue.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/event_log.h"
#include "companion/explanation.h"
#include "companion/failure.h"
#include "companion/last_run.h"
#include "companion/log_files.h"
#include "companion/machine_state.h"
#include "companion/recovery.h"
#include "companion/safe_place.h"
#include "companion/tool_process.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
// The recipes allow three hours.
constexpr int kDefaultLimitSeconds = 9000;
constexpr int kLongestLimitSeconds = 7 * 24 * 3600;
constexpr int kRecoveryLimitSeconds = 3600;  // a direct installation can show a box that no user answers
constexpr std::uint32_t kRecoveryAttempts = 3;
constexpr size_t kLongestAttempts = 2000;  // characters of the value RecoveryAttempts
constexpr int kTryAgain = 1618;

struct RunOptions
{
    int limitSeconds = kDefaultLimitSeconds;
    bool kill = false;
    bool unlessInUse = false;
    bool keep = false;
    std::string tool;
};

using Switches = std::vector<std::wstring>;

const Meaning& MeaningOf(std::string_view id)
{
    const auto& outcomes = BuiltInCatalogue().outcomes;
    return std::ranges::find(outcomes, id, [](const Outcome& outcome) { return outcome.meaning.id; })->meaning;
}

// Makes one of the outcomes of `run` itself the only one.
Finding Only(std::string_view id, std::vector<std::string> evidence = {}, Finding finding = {})
{
    finding.candidates.assign(1, {&MeaningOf(id), std::move(evidence)});
    return finding;
}

const Meaning& DecidedBy(const Finding& finding)
{
    return finding.candidates.size() == 1 ? *finding.candidates.front().meaning : MeaningOf("unclear");
}

// Windows Installer may still be removing a product: an orderly tool would have waited for it, or it is what keeps
// Windows Installer busy.
bool MayStillChange(const Meaning& meaning)
{
    constexpr std::string_view kOutcomes[] = {"interrupted", "log-cut",      "no-log",      "unclear",
                                              "quiet-end",   "install-busy", "direct-busy", "timed-out-ended"};
    return std::ranges::find(kOutcomes, meaning.id) != std::end(kOutcomes);
}

bool IsSuccess(int code)
{
    return code == ERROR_SUCCESS || code == ERROR_SUCCESS_REBOOT_REQUIRED;
}

std::wstring UtcNow()
{
    SYSTEMTIME now = {};
    GetSystemTime(&now);
    wchar_t text[32] = {};
    std::swprintf(text, std::size(text), L"%04u-%02u-%02uT%02u:%02u:%02uZ", now.wYear, now.wMonth, now.wDay, now.wHour,
                  now.wMinute, now.wSecond);
    return text;
}

bool HasSwitch(const Switches& switches, std::string_view wanted)
{
    return std::ranges::any_of(switches, [wanted](const auto& one) { return EqualNoCase(ToUtf8(one), wanted); });
}

bool IsDirect(const Switches& switches)
{
    return HasSwitch(switches, "-VLT") && HasSwitch(switches, "-Install");
}

std::wstring VersionOf(const Installed& installed)
{
    return installed.edition.isInstalled ? installed.edition.version : std::wstring();
}

// Copies this program and the tool. A program that cannot be replaced, because it runs for example, stays as it is.
void KeepPrograms(const SafePlace& place, const std::wstring& tool)
{
    CreateDirectoryW(place.Programs().c_str(), nullptr);
    const std::pair<std::wstring, std::wstring> programs[] = {{OurPath(), FileNameOf(OurPath())}, {tool, kTool}};
    for (const auto& [program, name] : programs)
    {
        const std::wstring target = JoinPath(place.Programs(), name);
        const std::wstring copy = target + L".new";
        if (!EqualNoCase(ToUtf8(program), ToUtf8(target)) &&
            (CopyFileW(program.c_str(), copy.c_str(), FALSE) == 0 ||
             SetFileAttributesW(copy.c_str(), FILE_ATTRIBUTE_NORMAL) == 0 ||  // a copy is write-protected too
             MoveFileExW(copy.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING) == 0))
        {
            WriteError(SystemFailure(ToUtf8(target) + ": this program cannot be kept", GetLastError()));
        }
    }
}

// Starts from what the last run has left.
LastRun Begin()
{
    LastRun run = ReadLastRun().value_or(LastRun());
    const bool isRetry = !run.outcome.empty() && !IsSuccess(static_cast<int>(run.code));
    run.attempt = isRetry ? run.attempt + 1 : 1;
    run.toolCode.reset();
    run.started = UtcNow();
    run.ended.clear();
    run.log.clear();
    run.release.clear();
    run.versionBefore.clear();
    run.versionAfter.clear();
    return run;
}

void ForgetRecovery(LastRun& run)
{
    run.recoveryPending = false;
    run.lost = run.failures = 0;
    run.keptInstaller.clear();
    run.keptRelease.clear();
    run.recoveryAttempts.clear();
}

// One run: the machine before it, the folder it works in, and what is remembered of it.
class FleetRun
{
public:
    FleetRun(const RunOptions& options, const Switches& switches, std::wstring tool, SafePlace& place, LastRun& run)
        : options_(options), switches_(switches), tool_(std::move(tool)), place_(place), run_(run)
    {
    }

    // Throws Failure before anything is changed.
    Finding Execute();

private:
    void TakeUpInterruptedRun();
    void KeepForNextRun(const std::wstring& mark);
    Finding StartTool(const ToolStart& start);
    Finding Recover();
    Finding InstallLostPackages();
    void Remember();
    Finding ReportLoss(const Finding& finding, const std::string& what, bool isBusy);

    const RunOptions& options_;
    const Switches& switches_;
    const std::wstring tool_;
    SafePlace& place_;
    LastRun& run_;
    MachineState before_;
    bool isRecovery_ = false;  // products are missing before the tool starts
};

Finding FleetRun::Execute()
{
    if (IsToolRunning(tool_) || IsToolRunning(run_.tool))
    {
        return Only("tool-running");
    }
    if (options_.unlessInUse && IsApplicationRunning())
    {
        return Only("in-use");
    }
    before_ = ReadMachineState();
    run_.release = before_.drivers.empty() ? std::wstring() : before_.drivers.front().releaseBase;
    run_.versionBefore = VersionOf(before_.installed);
    run_.lost = LostProducts(run_, before_.installed.products);
    isRecovery_ = run_.lost != 0;
    if (!isRecovery_)
    {
        ForgetRecovery(run_);
        place_.RemoveKept();
    }
    else if (!run_.recoveryPending)
    {
        TakeUpInterruptedRun();
    }
    else if ((run_.lost & kMainProduct) != 0 && !FileExists(run_.keptInstaller))  // the driver may have a new one
    {
        KeepForNextRun(run_.mark);
    }
    // Optional packages that cannot be installed do not keep the tool from its work.
    const bool mustRecover = (run_.lost & kMainProduct) != 0 || (isRecovery_ && run_.failures < kRecoveryAttempts);
    return mustRecover && !IsDirect(switches_)
               ? Recover()
               : StartTool({tool_, MakeMark(), switches_, options_.limitSeconds, options_.kill});
}

// The last run was interrupted, and products that were there are gone: this run recovers them. What its log says does
// not count, because a power cut can cost its last lines.
void FleetRun::TakeUpInterruptedRun()
{
    run_.recoveryPending = true;
    run_.recoveryAttempts = run_.started + L" found an interrupted run";
    KeepForNextRun(run_.mark);
    Remember();
}

// Keeps the installer of the run with this mark.
void FleetRun::KeepForNextRun(const std::wstring& mark)
{
    const std::wstring folder = before_.drivers.empty() ? std::wstring() : before_.drivers.front().driverFolder;
    KeepInstaller(place_, FindInstaller(place_, FindLog(mark), folder), run_);
    run_.keptRelease = IsDirect(switches_)        ? std::wstring()
                       : run_.keptRelease.empty() ? run_.release
                                                  : run_.keptRelease;
}

// Writes the state that an interruption of this run leaves.
void FleetRun::Remember()
{
    run_.outcome = kRunning;
    run_.title = L"Running, or interrupted";
    run_.code = kTryAgain;
    WriteLastRun(run_);
}

// Reports that products are still lost after the tool, or this program, has tried to install them.
Finding FleetRun::ReportLoss(const Finding& finding, const std::string& what, bool isBusy)
{
    run_.failures += isRecovery_ && !isBusy ? 1 : 0;
    run_.recoveryPending = true;
    run_.recoveryAttempts += (run_.recoveryAttempts.empty() ? L"" : L"; ") + run_.started + L" " + ToWide(what);
    if (run_.recoveryAttempts.size() > kLongestAttempts)
    {
        run_.recoveryAttempts.erase(0, run_.recoveryAttempts.size() - kLongestAttempts);
    }
    const bool hasFailed =
        run_.failures >= kRecoveryAttempts || ((run_.lost & kMainProduct) != 0 && run_.keptInstaller.empty());
    std::vector<std::string> evidence = {what};
    evidence.push_back("tried: " + ToUtf8(run_.recoveryAttempts));
    evidence.push_back(run_.keptInstaller.empty() ? "no installer is kept" : "kept: " + ToUtf8(run_.keptInstaller));
    return Only(hasFailed ? "recovery-failed" : "recovery-pending", std::move(evidence), finding);
}

// Runs the tool and compares the products afterwards with those that must be there.
Finding FleetRun::StartTool(const ToolStart& start)
{
    place_.MakeTemporary();
    SetEnvironmentVariableW(L"TMP", place_.Temporary().c_str());
    SetEnvironmentVariableW(L"TEMP", place_.Temporary().c_str());
    const std::uint32_t wanted = before_.installed.products | run_.lost;
    const std::uint32_t unchecked = std::exchange(run_.products, wanted);  // of earlier runs
    run_.mark = start.mark;
    run_.tool = start.tool;
    const std::uint32_t lostBefore = run_.lost;
    Remember();

    ToolEnd end = RunTool(start);
    if (end.startError != ERROR_SUCCESS)
    {
        run_.products = unchecked;
        place_.RemoveTemporary();
        const std::string reason = SystemFailure(ToUtf8(start.tool), end.startError);
        WriteError(reason);
        return Only("not-started", {reason});
    }
    if (!end.isOver)
    {
        const std::string lastLine = end.finding.lastLine;
        end.finding = Only(start.kill ? "timed-out-ended" : "timed-out", {lastLine}, std::move(end.finding));
        if (!start.kill)
        {
            return end.finding;  // the next run checks the products
        }
    }
    const Installed after = ReadInstalled();
    const Meaning& meaning = DecidedBy(end.finding);
    const bool mayStillChange = MayStillChange(meaning) || (unchecked != 0 && !IsSuccess(meaning.code));
    run_.versionAfter = VersionOf(after);
    run_.products = mayStillChange ? wanted : 0;  // the next run compares again
    run_.lost = wanted & ~after.products;
    if (run_.lost == 0 && mayStillChange)
    {
        return end.finding;
    }
    if (run_.lost == 0)
    {
        ForgetRecovery(run_);
        place_.RemoveTemporary();
        place_.RemoveKept();
        return end.finding;
    }
    // What is kept stays: an attempt to recover may have used another installer.
    const bool isKept =
        (run_.lost & kMainProduct) != 0 ? FileExists(run_.keptInstaller) : HasKeptPackages(place_, run_.lost);
    if (isKept && (run_.lost & ~lostBefore) == 0)
    {
        place_.RemoveTemporary();
    }
    else
    {
        KeepForNextRun(start.mark);
    }
    return ReportLoss(end.finding,
                      std::string(meaning.id) + ": " + std::string(meaning.title) + ", exit code " +
                          std::to_string(end.finding.exitCode.value_or(0)),
                      meaning.id == "direct-busy");
}

Finding FleetRun::Recover()
{
    if ((run_.lost & kMainProduct) == 0)
    {
        return InstallLostPackages();
    }
    if (run_.keptInstaller.empty())
    {
        return ReportLoss({}, "no installer", false);
    }
    Switches direct = {L"-VLT", L"-Install", L"-Path", run_.keptInstaller};
    if (HasSwitch(switches_, "-SILENT"))
    {
        direct.emplace_back(L"-SILENT");
    }
    const int limit = options_.kill ? std::min(options_.limitSeconds, kRecoveryLimitSeconds) : kRecoveryLimitSeconds;
    Finding finding = StartTool({tool_, MakeMark(), direct, limit, true});
    EndHiddenApplication();
    const Meaning& meaning = DecidedBy(finding);
    const bool isDone = run_.lost == 0 && IsSuccess(meaning.code);
    const char* const id = meaning.code == 0 ? "recovered" : "recovered-restart";
    return isDone ? Only(id, {std::string(meaning.id)}, std::move(finding)) : finding;
}

// A direct installation installs these only where the main product is missing too.
Finding FleetRun::InstallLostPackages()
{
    Remember();
    const PackagesResult result = InstallKeptPackages(place_, run_.lost);
    const Installed after = ReadInstalled();
    run_.versionAfter = VersionOf(after);
    run_.lost = (before_.installed.products | run_.lost) & ~after.products;
    const std::string what = "packages: " + result.codes;
    if (run_.lost != 0)
    {
        return ReportLoss({}, what, result.isBusy);
    }
    ForgetRecovery(run_);
    run_.products = 0;
    place_.RemoveKept();
    return Only(result.needsRestart ? "recovered-restart" : "recovered", {what});
}

void WriteToApplicationLog(const Meaning& meaning, const Finding& finding, const LastRun& run,
                           const std::wstring& program)
{
    std::wstring evidence;
    for (const std::string& line :
         finding.candidates.size() == 1 ? finding.candidates.front().evidence : std::vector<std::string>())
    {
        evidence += (evidence.empty() ? L"" : L" | ") + ToWide(line);
    }
    const auto orNone = [](const std::wstring& text) { return text.empty() ? std::wstring(L"-") : text; };
    WriteEvent(meaning.event, meaning.code,
               {ToWide(meaning.id), std::to_wstring(meaning.code),
                run.toolCode ? std::to_wstring(static_cast<int>(*run.toolCode)) : L"-", orNone(run.release),
                orNone(run.versionBefore), orNone(run.versionAfter), std::to_wstring(run.attempt), orNone(run.log),
                orNone(evidence)},
               program);
}

// Remembers the outcome and prints it. Failures to do so do not change the exit code.
int Conclude(const Finding& finding, LastRun run, const std::optional<SafePlace>& place)
{
    const Meaning& meaning = DecidedBy(finding);
    // Otherwise the key belongs to the run that has the folder, or may have it.
    const bool isOurs = place ? !place->IsTaken() : run.outcome != kRunning;
    run.outcome = ToWide(meaning.id);
    run.title = ToWide(meaning.title);
    run.code = static_cast<std::uint32_t>(meaning.code);
    run.toolCode = finding.exitCode ? std::optional(static_cast<std::uint32_t>(*finding.exitCode)) : std::nullopt;
    run.ended = UtcNow();
    run.log = finding.log.empty() ? std::wstring() : GetLogFolder() + ToWide(finding.log);
    const auto attempt = [](const auto& step) {
        try
        {
            step();
        }
        catch (const Failure& failure)
        {
            WriteError(failure.what());
        }
    };
    if (isOurs)
    {
        attempt([&] { WriteLastRun(run); });
    }
    // A kept program outlives the folder that a deployment system starts this one from.
    const std::wstring kept = place ? JoinPath(place->Programs(), FileNameOf(OurPath())) : std::wstring();
    attempt([&] { WriteToApplicationLog(meaning, finding, run, FileExists(kept) ? kept : OurPath()); });
    attempt([&] { WriteOutput(ExplainAsJson(finding) + "\n"); });
    return meaning.code;
}

int ExecuteRun(const RunOptions& options, const Switches& switches)
{
    LastRun run;
    bool isRead = false;
    std::optional<SafePlace> place;
    Finding finding;
    try
    {
        place.emplace();
        if (place->IsTaken())
        {
            return Conclude(Only("tool-running"), std::move(run), place);
        }
        run = Begin();  // not earlier: until now another run may have written it
        isRead = true;
        const std::wstring tool = options.tool.empty() ? ToolBesideUs() : ToWide(options.tool);
        if (options.keep)
        {
            KeepPrograms(*place, tool);
        }
        finding = FleetRun(options, switches, tool, *place, run).Execute();
    }
    catch (const Failure& failure)
    {
        WriteError(failure.what());
        finding = Only("not-started", {failure.what()});
        if (!isRead)
        {
            place.reset();
            try
            {
                run = Begin();
            }
            catch (const Failure&)  // a key that cannot be read is not written
            {
                run.outcome = kRunning;
            }
        }
    }
    return Conclude(finding, std::move(run), place);
}
}  // namespace

void AddRunCommand(CLI::App& program, int& result, const std::vector<std::wstring>& toolSwitches)
{
    const auto options = std::make_shared<RunOptions>();
    CLI::App& command =
        *program.add_subcommand("run", "Runs the tool with the switches after \"--\", and prints the outcome as JSON.");
    command.add_option("--timeout", options->limitSeconds, "time limit; two and a half hours without it")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, kLongestLimitSeconds).description(""));
    command.add_flag("--kill", options->kill, "end the tool at the time limit; otherwise it continues");
    command.add_flag("--unless-in-use", options->unlessInUse, "start nothing while the application is open");
    command.add_flag("--keep", options->keep,
                     "leave a copy of both programs in Program Files\\Tavik\\MIM\\Repair\\Programs");
    command.add_option("--tool", options->tool, "the tool; without it TavikCompatibilityTool.exe beside this program")
        ->type_name("PATH");
    command.footer(
        "The tool gets a temporary folder that only administrators can enter. The outcome is also in the registry key\n"
        "HKLM\\SOFTWARE\\Tavik\\RepairTool\\LastRun and in the Application log. If the tool removed the application "
        "and\n"
        "could not install it, the code is 1618, and the next run installs it again.\n"
        "\n"
        "Exit code: 0 done or nothing to do; 3010 done, restart needed; 1618 try again later; 1603 failed.\n"
        "\n"
        "Examples:\n"
        "  TavikToolCompanion run -- -SILENT\n"
        "  TavikToolCompanion run --unless-in-use -- -SILENT\n"
        "  TavikToolCompanion run --timeout 1800 --kill -- -VLT -Install -Path C:\\vlt\\setup.exe -SILENT\n"
        "  TavikToolCompanion run --tool C:\\repair\\TavikCompatibilityTool.exe -- -SILENT -FORCE");
    command.callback([options, &result, &toolSwitches] { result = ExecuteRun(*options, toolSwitches); });
}
}  // namespace repair
