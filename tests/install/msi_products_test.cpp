#include <windows.h>

#include <msi.h>
#include <shlobj.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "install/msi_products.h"
#include "support/fake_machine.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"

using testing::ElementsAre;
using testing::IsEmpty;

IMPORTED(SHGetSpecialFolderPathW)
IMPORTED(RegOpenKeyExW)
IMPORTED(RegCloseKey)

namespace repair
{
namespace
{
constexpr wchar_t kHalden[] = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";
constexpr wchar_t kApplicationKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\";

// Proves: Products of a family are installed => their cached packages in the system's order, each asked for with a full buffer
TEST(FindRelatedProductPackages, GivesTheCachedPackagesInTheInstallersOrder)
{
    FakeMachine machine;
    machine.products[L"{X}"] = {L"C:\\Windows\\Installer\\b.msi", L"C:\\Windows\\Installer\\a.msi"};
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"),
                ElementsAre(L"C:\\Windows\\Installer\\b.msi", L"C:\\Windows\\Installer\\a.msi"));
}

// Proves: None => an empty list
TEST(FindRelatedProductPackages, WithoutAProductTheListIsEmpty)
{
    FakeMachine machine;
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), IsEmpty());
}

// Proves: A product's package cannot be read, or its path has 260 characters or more => it is left out
TEST(FindRelatedProductPackages, LeavesOutWhatHasNoReadablePackage)
{
    FakeMachine machine;
    machine.products[L"{X}"] = {L"C:\\1.msi", L"", L"C:\\3.msi"};
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), ElementsAre(L"C:\\1.msi", L"C:\\3.msi"));
}

TEST(FindRelatedProductPackages, PathsUpTo259CharactersFit)
{
    FakeMachine machine;
    machine.products[L"{X}"] = {std::wstring(259, L'a'), std::wstring(260, L'b')};
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), ElementsAre(std::wstring(259, L'a')));
}

TEST(FindRelatedProductPackages, AsksForEveryIndexWithTheFullBufferEachTime)
{
    std::vector<DWORD> indices;
    std::vector<std::wstring> codes;
    SUBSTITUTE(MsiEnumRelatedProductsW)
    enumerate([&](const wchar_t* upgradeCode, DWORD reserved, DWORD index, wchar_t* code) {
        EXPECT_STREQ(upgradeCode, L"{X}");
        EXPECT_EQ(reserved, 0u);
        if (index == 0)
        {
            EXPECT_EQ(std::wstring(code, 39), std::wstring(39, L'\0'));
        }
        indices.push_back(index);
        wcscpy(code, index == 0 ? L"{first}" : L"{second}");
        return index < 2 ? UINT{0} : UINT{259};
    });
    SUBSTITUTE(MsiGetProductInfoW)
    information([&](const wchar_t* code, const wchar_t* property, wchar_t* value, DWORD* length) {
        codes.push_back(code);
        EXPECT_STREQ(property, L"LocalPackage");
        EXPECT_EQ(*length, 260u);
        wcscpy(value, L"C:\\x.msi");
        *length = 8;
        return UINT{0};
    });
    FindRelatedProductPackages(L"{X}");
    EXPECT_THAT(indices, ElementsAre(0u, 1u, 2u));
    EXPECT_THAT(codes, ElementsAre(L"{first}", L"{second}"));
}

// Proves: The enumeration fails in between => it goes on with the code read before; only its end ends it
TEST(FindRelatedProductPackages, AnErrorOfTheEnumerationDoesNotEndItAndTheCodeReadBeforeIsUsed)
{
    SUBSTITUTE(MsiEnumRelatedProductsW)
    enumerate([](const wchar_t*, DWORD, DWORD index, wchar_t* code) {
        if (index == 1)
        {
            return UINT{ERROR_BAD_CONFIGURATION};  // leaves the buffer as it is
        }
        wcscpy(code, index == 0 ? L"{a}" : L"{b}");
        return index < 3 ? UINT{0} : UINT{259};
    });
    SUBSTITUTE(MsiGetProductInfoW)
    information([](const wchar_t* code, const wchar_t*, wchar_t* value, DWORD*) {
        wcscpy(value, code);
        return UINT{0};
    });
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), ElementsAre(L"{a}", L"{a}", L"{b}"));
}

TEST(FindRelatedProductPackages, AnErrorAtTheFirstIndexLooksUpAnEmptyCode)
{
    std::vector<std::wstring> codes;
    SUBSTITUTE(MsiEnumRelatedProductsW)
    enumerate([](const wchar_t*, DWORD, DWORD index, wchar_t*) { return index == 0 ? UINT{5} : UINT{259}; });
    SUBSTITUTE(MsiGetProductInfoW)
    information([&](const wchar_t* code, const wchar_t*, wchar_t*, DWORD*) {
        codes.push_back(code);
        return UINT{87};
    });
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), IsEmpty());
    EXPECT_THAT(codes, ElementsAre(L""));
}

class ProductInformation : public testing::TestWithParam<UINT>
{
};
INSTANTIATE_TEST_SUITE_P(Failures, ProductInformation, testing::Values(234, 1605, 1608, 1610, 87));

TEST_P(ProductInformation, OfAProductThatCannotBeReadLeavesItOut)
{
    SUBSTITUTE(MsiEnumRelatedProductsW)
    enumerate([](const wchar_t*, DWORD, DWORD index, wchar_t*) { return index == 0 ? UINT{0} : UINT{259}; });
    SUBSTITUTE(MsiGetProductInfoW)
    information([](const wchar_t*, const wchar_t*, wchar_t* value, DWORD*) {
        wcscpy(value, L"C:\\half");
        return GetParam();
    });
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), IsEmpty());
}

// Proves: Is the desktop edition installed? => when the main family has a product with a readable package
TEST(IsDesktopEditionInstalled, AnswersForTheMainFamilyOnly)
{
    FakeMachine machine;
    machine.products[L"{8E41A6D2-0C9B-4F73-A215-6B7D3E9F0A58}"] = {L"C:\\dvr.msi"};
    machine.products[L"{B07F3C95-4D28-4E6A-8B31-9F5A2C7E1D04}"] = {L"C:\\pxl.msi"};
    EXPECT_FALSE(IsDesktopEditionInstalled());
    machine.products[kHalden] = {L"C:\\main.msi"};
    EXPECT_TRUE(IsDesktopEditionInstalled());
    EXPECT_THAT(machine.StepsOf(L"related"), ElementsAre(L"related {5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}",
                                                         L"related {5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}"));
}

TEST(IsDesktopEditionInstalled, AProductWithoutAReadablePackageDoesNotCount)
{
    FakeMachine machine;
    machine.products[kHalden] = {L""};
    EXPECT_FALSE(IsDesktopEditionInstalled());
}

// Proves: A package is installed => with the fixed properties, nothing is logged
TEST(InstallMsiPackage, PassesTheFixedPropertiesAndLogsNothing)
{
    FakeMachine machine;
    LogCapture log;
    EXPECT_EQ(InstallMsiPackage(L"C:\\a b.msi", L""), 0);
    EXPECT_THAT(machine.steps,
                ElementsAre(L"install C:\\a b.msi | REBOOT=ReallySuppress MSIFASTINSTALL=3 LAUNCHED_FROM_MIM=\"1\""));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: Into a folder of the user's own, with blanks => logged, the folder is appended in quotes
TEST(InstallMsiPackage, CustomFolderIsLoggedAndAppendedInQuotes)
{
    FakeMachine machine;
    LogCapture log;
    EXPECT_EQ(InstallMsiPackage(L"C:\\a.msi", L"D:\\My Programs\\Tavik"), 0);
    EXPECT_THAT(machine.steps,
                ElementsAre(L"install C:\\a.msi | REBOOT=ReallySuppress MSIFASTINSTALL=3 LAUNCHED_FROM_MIM=\"1\" "
                            L"INSTALLDIR=\"D:\\My Programs\\Tavik\""));
    EXPECT_THAT(log.Lines(), ElementsAre(L"Using custom install directory D:\\My Programs\\Tavik"));
}

class RebootCode : public testing::TestWithParam<UINT>
{
};
INSTANTIATE_TEST_SUITE_P(Codes, RebootCode, testing::Values(1641, 3010, 3011));

// Proves: It wants a restart (1641, 3010, 3011) => logged, result 0
TEST_P(RebootCode, CountsAsSuccessAndIsLogged)
{
    FakeMachine machine;
    machine.packageResults[L"C:\\a.msi"] = GetParam();
    LogCapture log;
    EXPECT_EQ(InstallMsiPackage(L"C:\\a.msi", L""), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(L"System reboot may be required for C:\\a.msi."));
}

class FailureCode : public testing::TestWithParam<UINT>
{
};
INSTANTIATE_TEST_SUITE_P(Codes, FailureCode,
                         testing::Values(2, 5, 1601, 1602, 1603, 1618, 1619, 1620, 1638, 1640, 1642, 3009, 3012));

// Proves: It fails otherwise => the code comes back, nothing is logged here
TEST_P(FailureCode, ComesBackAsItIsAndIsNotLogged)
{
    FakeMachine machine;
    machine.packageResults[L"C:\\a.msi"] = GetParam();
    LogCapture log;
    EXPECT_EQ(InstallMsiPackage(L"C:\\a.msi", L""), static_cast<int>(GetParam()));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// The Program Files folder is a folder of the test.
class GetCustomInstallDirTest : public testing::Test
{
protected:
    void Register(const std::wstring& folder) { registry_.SetString(kApplicationKey, L"InstallDir", folder); }

    MachineRegistry registry_;
    TemporaryFolder programFiles_;
    std::wstring defaultFolder_ = programFiles_ / L"Tavik";
    SUBSTITUTE(SHGetSpecialFolderPathW)
    specialFolder_{[this](HWND owner, wchar_t* path, int folder, BOOL create) {
        EXPECT_EQ(owner, nullptr);
        EXPECT_EQ(folder, 0x26);
        EXPECT_EQ(create, FALSE);
        wcscpy(path, programFiles_.Path().c_str());
        return TRUE;
    }};
};

// Proves: The registered folder is another than the default one => it is the user's own
TEST_F(GetCustomInstallDirTest, IsTheRegisteredFolderWhenItIsNotTheDefaultOne)
{
    programFiles_.CreateFolder(L"Tavik");
    const std::wstring own = programFiles_.CreateFolder(L"Own Choice");
    Register(own);
    LogCapture log;
    EXPECT_EQ(GetCustomInstallDir(), own);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: It is the default one in another spelling: letter case, short name, backslash at the end => none
TEST_F(GetCustomInstallDirTest, IsEmptyForTheDefaultFolderInAnySpelling)
{
    programFiles_.CreateFolder(L"Tavik");
    for (const wchar_t* spelling : {L"Tavik", L"TAVIK", L"tavik\\", L".\\Tavik", L"Tavik\\..\\Tavik"})
    {
        Register(programFiles_ / spelling);
        EXPECT_EQ(GetCustomInstallDir(), L"") << testing::PrintToString(std::wstring(spelling));
    }
}

// Proves: The default folder does not exist => whatever is registered, even a folder that does not exist
TEST_F(GetCustomInstallDirTest, IsWhateverIsRegisteredWhenThereIsNoDefaultFolder)
{
    Register(L"Q:\\gone");
    EXPECT_EQ(GetCustomInstallDir(), L"Q:\\gone");
    Register(defaultFolder_);
    EXPECT_EQ(GetCustomInstallDir(), defaultFolder_);
}

// Proves: The default one exists, the registered one does not or cannot be opened => none, nothing is logged
TEST_F(GetCustomInstallDirTest, IsEmptyWhenTheRegisteredFolderIsGoneButTheDefaultOneIsThere)
{
    programFiles_.CreateFolder(L"Tavik");
    Register(programFiles_ / L"gone");
    LogCapture log;
    EXPECT_EQ(GetCustomInstallDir(), L"");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: Key or value is missing => none, nothing is logged
TEST_F(GetCustomInstallDirTest, IsEmptyWithoutTheKeyOrTheValueAndThenNoFolderIsLookedAt)
{
    int asked = 0;
    SUBSTITUTE(SHGetSpecialFolderPathW) count([&](HWND, wchar_t*, int, BOOL) { return ++asked, FALSE; });
    LogCapture log;
    EXPECT_EQ(GetCustomInstallDir(), L"");
    registry_.CreateKey(kApplicationKey);
    EXPECT_EQ(GetCustomInstallDir(), L"");
    registry_.SetValue(kApplicationKey, L"InstallDir", REG_DWORD, {1, 0, 0, 0});
    EXPECT_EQ(GetCustomInstallDir(), L"");
    EXPECT_EQ(asked, 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: The key is opened => for reading, in the process's own view, and closed
TEST_F(GetCustomInstallDirTest, OpensTheKeyForReadingInTheOwnViewAndClosesIt)
{
    Register(L"Q:\\x");
    HKEY opened = nullptr;
    int closed = 0;
    SUBSTITUTE(RegOpenKeyExW)
    open([&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(path, L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\");
        EXPECT_EQ(access, 0x20019u);
        const LSTATUS status = open.Original()(root, path, options, access, key);
        opened = *key;
        return status;
    });
    SUBSTITUTE(RegCloseKey)
    close([&](HKEY key) {
        closed += key == opened ? 1 : 0;
        return close.Original()(key);
    });
    GetCustomInstallDir();
    EXPECT_EQ(closed, 1);
}
}  // namespace
}  // namespace repair
