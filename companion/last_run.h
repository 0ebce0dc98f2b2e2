// What the last `run` did, and what a recovery needs: HKLM\SOFTWARE\Tavik\RepairTool\LastRun, in the 64-bit view.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace repair
{
// Products of the desktop edition, as bits.
inline constexpr std::uint32_t kMainProduct = 1;
inline constexpr std::uint32_t kDvrProduct = 2;
inline constexpr std::uint32_t kPxlProduct = 4;

// Outcome of a run that goes on or was interrupted; not in the catalogue.
inline constexpr wchar_t kRunning[] = L"running";

// Each field is a value of the key, with the name in the comment if it differs. A missing value is empty or 0.
struct LastRun
{
    std::wstring outcome;  // id in the catalogue, or kRunning
    std::wstring title;
    std::uint32_t code = 0;                 // reported to the deployment system
    std::optional<std::uint32_t> toolCode;  // exit code of the tool; none if it was not started or has not ended
    std::wstring started;                   // UTC, as in 2026-11-06T04:07:31Z
    std::wstring ended;                     // empty: the run goes on, or was interrupted
    std::wstring mark;                      // argument that identifies the log of the run
    std::wstring release;                   // of the driver
    std::wstring versionBefore;             // of the application
    std::wstring versionAfter;
    std::wstring log;               // path
    std::uint32_t attempt = 0;      // runs since the last one that succeeded, this one included
    std::uint32_t products = 0;     // ProductsBefore: installed before the tool was started; 0 once its end was checked
    bool recoveryPending = false;   // products were lost, and the next run installs them
    std::uint32_t lost = 0;         // ProductsLost: the lost ones
    std::uint32_t failures = 0;     // RecoveryFailures
    std::wstring keptInstaller;     // path
    std::wstring keptRelease;       // the driver's release that the kept installer belongs to
    std::wstring recoveryAttempts;  // what was tried, for people
    std::wstring tool;              // path of the tool that was started
};

// Returns nothing if no run was remembered. Throws Failure if that cannot be read.
std::optional<LastRun> ReadLastRun();

// Replaces all values and writes them to the disk, so that they survive a power cut. Throws Failure.
void WriteLastRun(const LastRun& last);

// Returns the products that the last run has lost, as far as they are still missing: those of a recovery that is
// pending, and those that were installed before a run whose end was not checked.
std::uint32_t LostProducts(const LastRun& last, std::uint32_t installedNow);
}  // namespace repair
