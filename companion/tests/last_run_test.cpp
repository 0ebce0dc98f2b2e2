// The registry key of the last run, and which products a run has lost.
#include "companion/last_run.h"

#include <tuple>

#include "support/machine_registry.h"
#include "support/test.h"

#include "base/registry.h"
#include "companion/failure.h"

IMPORTED(RegFlushKey, RegOpenKeyExW, RegSetValueExW)

using namespace repair;

namespace
{
constexpr wchar_t kKey[] = L"SOFTWARE\\Tavik\\RepairTool\\LastRun";

LastRun Written()
{
    LastRun last;
    last.outcome = L"install-busy";
    last.title = L"Windows Installer is busy";
    last.code = 1618;
    last.toolCode = 0xFFFFFFFF;
    last.started = L"2026-11-06T04:07:31Z";
    last.ended = L"2026-11-06T04:09:00Z";
    last.release = L"24.20";
    last.versionBefore = L"23.40";
    last.log = L"C:\\logs\\one.log";
    last.attempt = 2;
    last.products = kMainProduct | kDvrProduct;
    last.recoveryPending = true;
    last.lost = kDvrProduct;
    last.failures = 1;
    last.keptInstaller = L"C:\\kept\\dwx2_install.exe";
    last.keptRelease = L"24.20";
    last.recoveryAttempts = L"once";
    return last;
}
}  // namespace

TEST(LastRun, IsReadAsItWasWritten)
{
    const MachineRegistry registry;
    EXPECT_FALSE(ReadLastRun().has_value());
    const RECORD(RegFlushKey) flushed;
    WriteLastRun(Written());
    EXPECT_EQ(flushed.Calls().size(), 1U);
    LastRun read = ReadLastRun().value_or(LastRun());
    EXPECT_EQ(read.outcome, L"install-busy");
    EXPECT_EQ(read.toolCode, 0xFFFFFFFF);
    EXPECT_EQ(read.products, kMainProduct | kDvrProduct);
    EXPECT_TRUE(read.recoveryPending);
    EXPECT_EQ(read.keptInstaller, L"C:\\kept\\dwx2_install.exe");
    EXPECT_EQ(ReadMachineString(kKey, L"Started"), L"2026-11-06T04:07:31Z");
    read.toolCode.reset();
    read.versionBefore.clear();
    read.recoveryPending = false;
    WriteLastRun(read);
    read = ReadLastRun().value_or(Written());
    EXPECT_EQ(std::tuple(read.toolCode, read.versionBefore, read.recoveryPending, read.code),
              std::tuple(std::nullopt, L"", false, 1618U));
}

TEST(LastRun, ValuesOfAnotherTypeAreMissing)
{
    const MachineRegistry registry;
    MachineRegistry::SetString(kKey, L"Code", L"5");
    MachineRegistry::SetValue(kKey, L"Outcome", REG_DWORD, {1, 0, 0, 0});
    const LastRun read = ReadLastRun().value_or(Written());
    EXPECT_EQ(std::tuple(read.code, read.outcome, read.toolCode), std::tuple(0U, L"", std::nullopt));
}

TEST(LastRun, WhatAnInterruptedWriteLeavesForgetsNoLoss)
{
    const MachineRegistry registry;
    const RECORD(RegSetValueExW) set;
    WriteLastRun(Written());
    const auto calls = set.Calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(std::get<1>(calls.back()), L"ProductsBefore");
}

TEST(LastRun, AKeyThatCannotBeReadIsAnError)
{
    const MachineRegistry registry;
    SUBSTITUTE(RegOpenKeyExW) open([](auto...) { return ERROR_ACCESS_DENIED; });
    EXPECT_THROW(ReadLastRun(), Failure);
}

TEST(LastRun, AWriteThatFailsIsAnError)
{
    const MachineRegistry registry;
    SUBSTITUTE(RegSetValueExW) set([](auto...) { return ERROR_DISK_FULL; });
    EXPECT_THROW(WriteLastRun(Written()), Failure);
}

TEST(LastRun, LostProductsAreThoseOfAPendingRecoveryAndOfARunWhoseEndWasNotChecked)
{
    const std::tuple<bool, std::uint32_t, std::uint32_t, std::uint32_t> cases[] = {
        // pending, installed before and now; lost
        {true, 0, 0, kDvrProduct},
        {true, 0, kMainProduct, kDvrProduct},
        {true, kMainProduct, kDvrProduct, kMainProduct},
        {true, kMainProduct, 0, kMainProduct | kDvrProduct},
        {false, 0, 0, 0},
        {false, kMainProduct | kDvrProduct, kDvrProduct, kMainProduct},
        {false, kMainProduct, kMainProduct, 0},
    };
    for (const auto& [pending, before, now, lost] : cases)
    {
        LastRun last = Written();
        last.recoveryPending = pending;
        last.products = before;
        EXPECT_EQ(LostProducts(last, now), lost) << pending << before << now;
    }
}
