#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <string>

#include "inventory/installed_version.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/substitute.h"

IMPORTED(RegCloseKey)
IMPORTED(RegGetValueW)
IMPORTED(RegOpenKeyExW)

using testing::IsEmpty;

namespace repair
{
namespace
{
constexpr wchar_t kKey[] = L"SOFTWARE\\Tavik\\HL";

// Proves: Both values are there => they come back as stored
TEST(InstalledVersion, BothValuesAsStored)
{
    MachineRegistry registry;
    registry.SetString(kKey, L"HLVersion", L" 24.20 ");
    registry.SetString(kKey, L"DriverVersion", L"24.20.11-x");
    LogCapture log;
    EXPECT_EQ(GetInstalledAppVersion(), L" 24.20 ");
    EXPECT_EQ(GetInstalledAppDriverVersion(), L"24.20.11-x");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: No desktop application: the key is missing => both are empty, nothing is logged, the caller's line shows two empty pairs of brackets
TEST(InstalledVersion, WithoutTheKeyBothAreEmptyAndNothingIsLogged)
{
    MachineRegistry registry;
    LogCapture log;
    EXPECT_EQ(GetInstalledAppVersion(), L"");
    EXPECT_EQ(GetInstalledAppDriverVersion(), L"");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: Only one of the values is there => one text, one empty
TEST(InstalledVersion, OneMayBeMissing)
{
    MachineRegistry registry;
    registry.SetString(kKey, L"HLVersion", L"24.20");
    LogCapture log;
    EXPECT_EQ(GetInstalledAppVersion(), L"24.20");
    EXPECT_EQ(GetInstalledAppDriverVersion(), L"");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: A value is no text => empty, nothing is logged, the key is closed
TEST(InstalledVersion, ValueThatIsNoTextIsEmpty)
{
    MachineRegistry registry;
    registry.SetValue(kKey, L"HLVersion", REG_DWORD, {24, 0, 0, 0});
    registry.SetValue(kKey, L"DriverVersion", REG_BINARY, {'2', 0, 0, 0});
    LogCapture log;
    EXPECT_EQ(GetInstalledAppVersion(), L"");
    EXPECT_EQ(GetInstalledAppDriverVersion(), L"");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Each reader on a key that is watched from opening to closing.
class WatchedKey : public testing::TestWithParam<std::wstring (*)()>
{
protected:
    static HKEY Given() { return reinterpret_cast<HKEY>(static_cast<INT_PTR>(0x4321)); }

    int opened_ = 0;
    int closed_ = 0;
    SUBSTITUTE(RegOpenKeyExW)
    open_{[this](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(path, L"SOFTWARE\\Tavik\\HL");
        EXPECT_EQ(options, 0u);
        EXPECT_EQ(access, 0x20019u);
        ++opened_;
        *key = Given();
        return ERROR_SUCCESS;
    }};
    SUBSTITUTE(RegCloseKey)
    close_{[this](HKEY key) {
        EXPECT_EQ(key, Given());
        ++closed_;
        return ERROR_SUCCESS;
    }};
};

// Proves: The key is read (installed application version) => for reading only, in the process's own view, and closed
TEST_P(WatchedKey, IsReadWithoutASubKeyAndClosed)
{
    int reads = 0;
    SUBSTITUTE(RegGetValueW)
    get([&](HKEY key, const wchar_t* subKey, const wchar_t*, DWORD, DWORD*, void*, DWORD* size) {
        EXPECT_EQ(key, Given());
        EXPECT_STREQ(subKey, L"");
        EXPECT_EQ(closed_, 0);
        ++reads;
        *size = 0;
        return ERROR_SUCCESS;
    });
    EXPECT_EQ(GetParam()(), L"");
    EXPECT_EQ(reads, 2);
    EXPECT_EQ(opened_, 1);
    EXPECT_EQ(closed_, 1);
}

TEST_P(WatchedKey, IsClosedWhenTheReadFails)
{
    SUBSTITUTE(RegGetValueW) get([](auto...) { return ERROR_FILE_NOT_FOUND; });
    EXPECT_EQ(GetParam()(), L"");
    EXPECT_EQ(closed_, 1);
}

// Proves: Access to the key is denied => empty, nothing is logged
TEST_P(WatchedKey, ThatIsDeniedGivesEmpty)
{
    SUBSTITUTE(RegOpenKeyExW) deny([](auto...) { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(GetParam()(), L"");
    EXPECT_EQ(closed_, 0);
}

// Proves: Any exception on the way => stays inside, the result is empty, the key is closed
TEST_P(WatchedKey, ExceptionOfAnyTypeStaysInside)
{
    {
        SUBSTITUTE(RegGetValueW) get([](auto...) -> LSTATUS { throw std::bad_alloc(); });
        EXPECT_EQ(GetParam()(), L"");
    }
    SUBSTITUTE(RegGetValueW) get([](auto...) -> LSTATUS { throw 7; });
    EXPECT_EQ(GetParam()(), L"");
    EXPECT_EQ(closed_, 2);
}

std::wstring AppVersion()
{
    return GetInstalledAppVersion();
}

std::wstring DriverVersion()
{
    return GetInstalledAppDriverVersion();
}

INSTANTIATE_TEST_SUITE_P(Both, WatchedKey, testing::Values(&AppVersion, &DriverVersion));
}  // namespace
}  // namespace repair
