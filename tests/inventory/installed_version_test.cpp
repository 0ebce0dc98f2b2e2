#include "inventory/installed_version.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <string>

#include "support/key_watch.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"

IMPORTED(RegGetValueW)

using testing::IsEmpty;

namespace repair
{
namespace
{
constexpr wchar_t kKey[] = L"SOFTWARE\\Tavik\\HL";

class InstalledVersion : public testing::Test
{
protected:
    void ExpectVersions(const wchar_t* application, const wchar_t* driver) const
    {
        EXPECT_EQ(GetInstalledAppVersion(), application);
        EXPECT_EQ(GetInstalledAppDriverVersion(), driver);
        EXPECT_THAT(log_.Lines(), IsEmpty());
    }

    MachineRegistry registry_;
    LogCapture log_;
};

// Proves: Both values are there => they come back as stored
TEST_F(InstalledVersion, IsGivenAsStored)
{
    registry_.SetString(kKey, L"HLVersion", L" 24.20 ");
    registry_.SetString(kKey, L"DriverVersion", L"24.20.11-x");
    ExpectVersions(L" 24.20 ", L"24.20.11-x");
}

// Proves: No desktop application: the key is missing => both are empty, nothing is logged, the caller's line shows two empty pairs of brackets
TEST_F(InstalledVersion, IsEmptyWithoutTheKey)
{
    ExpectVersions(L"", L"");
}

// Proves: Only one of the values is there => one text, one empty
TEST_F(InstalledVersion, IsEmptyWhereOneValueIsMissing)
{
    registry_.SetString(kKey, L"HLVersion", L"24.20");
    ExpectVersions(L"24.20", L"");
}

// Proves: A value is not text => empty, nothing is logged, the key is closed
TEST_F(InstalledVersion, IsEmptyWhereTheValueIsNoText)
{
    registry_.SetValue(kKey, L"HLVersion", REG_DWORD, {24, 0, 0, 0});
    registry_.SetValue(kKey, L"DriverVersion", REG_BINARY, {'2', 0, 0, 0});
    ExpectVersions(L"", L"");
}

// The two readers, on a key that is watched.
class WatchedVersion : public InstalledVersion, public testing::WithParamInterface<bool>
{
protected:
    WatchedVersion() { registry_.CreateKey(kKey); }

    void ExpectEmpty() const
    {
        EXPECT_EQ(GetParam() ? GetInstalledAppDriverVersion() : GetInstalledAppVersion(), L"");
        EXPECT_THAT(log_.Lines(), IsEmpty());
    }

    KeyWatch watch_{kKey};
};

INSTANTIATE_TEST_SUITE_P(Both, WatchedVersion, testing::Bool());

// Proves: The key is read (installed application version) => for reading only, in the process's own view, and closed
TEST_P(WatchedVersion, IsReadFromTheKeyItselfWhichIsThenClosed)
{
    int reads = 0;
    SUBSTITUTE(RegGetValueW)
    get([&](HKEY, const wchar_t* subKey, const wchar_t*, DWORD, DWORD*, void*, DWORD* size) {
        EXPECT_STREQ(subKey, L"");
        EXPECT_EQ(watch_.closed, 0);
        ++reads;
        *size = 0;
        return ERROR_SUCCESS;
    });
    ExpectEmpty();
    EXPECT_EQ(reads, 2);
    EXPECT_EQ(watch_.opened, 1);
    EXPECT_EQ(watch_.closed, 1);
}

// Proves: Access to the key is denied => empty, nothing is logged
TEST_P(WatchedVersion, IsEmptyWhenTheKeyIsDenied)
{
    SUBSTITUTE(RegOpenKeyExW) deny([](auto...) { return ERROR_ACCESS_DENIED; });
    ExpectEmpty();
    EXPECT_EQ(watch_.closed, 0);
}

// Proves: Any exception on the way => stays inside, the result is empty, the key is closed
TEST_P(WatchedVersion, IsEmptyAfterAFailureOrAnyExceptionAndTheKeyIsClosed)
{
    int reads = 0;
    SUBSTITUTE(RegGetValueW)
    get([&](auto...) -> LSTATUS {
        switch (++reads)
        {
            case 1:
                return ERROR_FILE_NOT_FOUND;
            case 2:
                throw std::bad_alloc();
            default:
                throw 7;
        }
    });
    for (int closed = 1; closed <= 3; ++closed)
    {
        ExpectEmpty();
        EXPECT_EQ(watch_.closed, closed);
    }
}
}  // namespace
}  // namespace repair
