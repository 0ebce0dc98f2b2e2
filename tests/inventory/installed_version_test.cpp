#include "inventory/installed_version.h"

#include <new>

#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/test.h"

IMPORTED(RegGetValueW, RegOpenKeyExW)

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

// Proves: No desktop application: the key is missing => both are empty, nothing is logged, the caller's line shows two empty pairs of brackets
// Proves: Only one of the values is there => one text, one empty
// Proves: Both values are there => they come back as stored
// Proves: A value is not text => empty, nothing is logged, the key is closed
TEST_F(InstalledVersion, IsGivenAsStoredAndEmptyWhereItIsMissingOrNoText)
{
    ExpectVersions(L"", L"");
    registry_.SetString(kKey, L"HLVersion", L" 24.20 ");
    ExpectVersions(L" 24.20 ", L"");
    registry_.SetString(kKey, L"DriverVersion", L"24.20.11-x");
    ExpectVersions(L" 24.20 ", L"24.20.11-x");
    registry_.SetValue(kKey, L"HLVersion", REG_DWORD, {24, 0, 0, 0});
    registry_.SetValue(kKey, L"DriverVersion", REG_BINARY, {'2', 0, 0, 0});
    ExpectVersions(L"", L"");
}

// Proves: Access to the key is denied => empty, nothing is logged
// Proves: Any exception on the way => stays inside, the result is empty, the key is closed
TEST_F(InstalledVersion, IsEmptyAfterAFailureOrAnyException)
{
    registry_.SetString(kKey, L"HLVersion", L"24.20");
    registry_.SetString(kKey, L"DriverVersion", L"24.20");
    {
        SUBSTITUTE(RegOpenKeyExW) deny([](auto...) { return ERROR_ACCESS_DENIED; });
        ExpectVersions(L"", L"");
    }
    {
        SUBSTITUTE(RegGetValueW) get([](auto...) -> LSTATUS { throw std::bad_alloc(); });
        ExpectVersions(L"", L"");
    }
    SUBSTITUTE(RegGetValueW) get([](auto...) -> LSTATUS { throw 7; });
    ExpectVersions(L"", L"");
}
}  // namespace
}  // namespace repair
