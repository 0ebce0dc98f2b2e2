// What the inventory does not catch: the caller gets it, and nothing stays open.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <string>

#include "inventory/driver_enumeration.h"
#include "inventory/inf_release.h"
#include "inventory/made_up_devices.h"
#include "support/machine_registry.h"
#include "support/temporary_folder.h"

IMPORTED(SetupCloseInfFile)
IMPORTED(SetupFindFirstLineW)
IMPORTED(SetupOpenInfFileW)

namespace repair
{
namespace
{
class InventoryWithoutMemory : public testing::Test
{
protected:
    TemporaryFolder folder_;
    std::wstring inf_ = folder_.WriteBytes(L"x.inf", "[S]\r\n");
    int opened_ = 0;
    int closed_ = 0;
    SUBSTITUTE(SetupOpenInfFileW)
    open_{[this](const wchar_t*, const wchar_t*, DWORD, UINT*) -> HINF {
        ++opened_;
        return this;
    }};
    SUBSTITUTE(SetupFindFirstLineW) first_{[](auto...) -> BOOL { throw std::bad_alloc(); }};
    SUBSTITUTE(SetupCloseInfFile)
    close_{[this](HINF inf) {
        EXPECT_EQ(inf, this);
        ++closed_;
    }};
};

// Proves: Memory runs out on the way => the exception reaches the caller, the file is closed
TEST_F(InventoryWithoutMemory, InfReaderClosesTheFileAndPassesTheExceptionOn)
{
    EXPECT_THROW(ReadInfReleaseVersion(inf_), std::bad_alloc);
    EXPECT_EQ(opened_, 1);
    EXPECT_EQ(closed_, 1);
}

// Proves: An exception while an INF is read => it passes through, the device list is given back
TEST_F(InventoryWithoutMemory, EnumerationGivesItsListBackAndPassesTheExceptionOn)
{
    const MachineRegistry registry;
    MachineRegistry::SetString(L"SYSTEM\\CurrentControlSet\\Control\\Class\\{x}\\0", L"ReleaseVersion", L"24.20");
    MadeUpDevices machine;
    machine.devices.push_back({L"PCI\\VEN_1E7D", L"{x}\\0"});
    machine.devices.back().packages = {{L"x.inf", inf_}};
    EXPECT_THROW(EnumerateDisplayDrivers(), std::bad_alloc);
    EXPECT_EQ(machine.calls.back(), L"close");
    EXPECT_EQ(closed_, 1);
}
}  // namespace
}  // namespace repair
