#include "install/msi_products.h"

#include <windows.h>
#include <msi.h>
#include <shlobj.h>

#include <list>

#include "support/fake_machine.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/test.h"

IMPORTED(SHGetSpecialFolderPathW)

namespace repair
{
namespace
{

// Proves: Products of a family are installed => their cached packages in the system's order, each asked for with a full buffer
// Proves: None => an empty list
// Proves: A product's package cannot be read, or its path has 260 characters or more => it is left out
TEST(FindRelatedProductPackages, GivesTheReadablePackagesOfAFamilyInTheInstallersOrder)
{
    FakeMachine machine;
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), IsEmpty());
    const std::wstring longest(259, L'a');
    machine.products[L"{X}"] = {L"C:\\b.msi", L"", longest, std::wstring(260, L'b'), L"C:\\a.msi"};
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), ElementsAre(L"C:\\b.msi", longest, L"C:\\a.msi"));
}

// An enumeration whose calls return these results with these product codes (null: the buffer stays as it is), then the
// end. The package of a product has the product's code as its path.
class ProductEnumeration : public testing::Test
{
protected:
    std::vector<std::pair<UINT, const wchar_t*>> answers_;
    UINT packageResult_ = ERROR_SUCCESS;
    std::vector<std::wstring> codes_;  // asked for
    SUBSTITUTE(MsiEnumRelatedProductsW)
    enumerate_{[this](const wchar_t* upgradeCode, DWORD reserved, DWORD index, wchar_t* code) {
        EXPECT_STREQ(upgradeCode, L"{X}");
        EXPECT_EQ(reserved, 0u);
        EXPECT_LE(index, answers_.size());
        EXPECT_TRUE(index != 0 || std::wstring(code, 39) == std::wstring(39, L'\0'));
        if (index < answers_.size() && answers_[index].second != nullptr)
        {
            wcscpy(code, answers_[index].second);
        }
        return index < answers_.size() ? answers_[index].first : UINT{ERROR_NO_MORE_ITEMS};
    }};
    SUBSTITUTE(MsiGetProductInfoW)
    information_{[this](const wchar_t* code, const wchar_t* property, wchar_t* value, DWORD* length) {
        EXPECT_STREQ(property, L"LocalPackage");
        EXPECT_EQ(*length, 260u);
        codes_.push_back(code);
        wcscpy(value, code);
        *length = static_cast<DWORD>(codes_.back().size());
        return packageResult_;
    }};
};

// Proves: The enumeration fails midway => it continues with the product code read before; only the end of the list stops it
TEST_F(ProductEnumeration, GoesOnAfterAnErrorWithTheCodeReadBefore)
{
    answers_ = {{0, L"{a}"}, {ERROR_BAD_CONFIGURATION, nullptr}, {0, L"{b}"}};
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), ElementsAre(L"{a}", L"{a}", L"{b}"));
}

TEST_F(ProductEnumeration, LooksUpAnEmptyCodeAfterAnErrorAtTheFirstIndex)
{
    answers_ = {{5, nullptr}};
    packageResult_ = 87;
    EXPECT_THAT(FindRelatedProductPackages(L"{X}"), IsEmpty());
    EXPECT_THAT(codes_, ElementsAre(L""));
}

// Proves: Is the desktop edition installed? => when the main family has a product with a readable package
TEST(IsDesktopEditionInstalled, AnswersForTheMainFamilyOnly)
{
    FakeMachine machine;
    machine.products[L"{8E41A6D2-0C9B-4F73-A215-6B7D3E9F0A58}"] = {L"C:\\dvr.msi"};
    machine.products[L"{B07F3C95-4D28-4E6A-8B31-9F5A2C7E1D04}"] = {L"C:\\pxl.msi"};
    machine.products[kHalden] = {L""};  // without a readable package
    EXPECT_FALSE(IsDesktopEditionInstalled());
    machine.products[kHalden] = {L"C:\\main.msi"};
    EXPECT_TRUE(IsDesktopEditionInstalled());
    EXPECT_THAT(machine.StepsOf(L"related"), ElementsAre(L"related {5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}",
                                                         L"related {5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}"));
}

// Proves: A package is installed => with the fixed properties, nothing is logged
// Proves: It wants a restart (1641, 3010, 3011) => logged, result 0
// Proves: It fails otherwise => the code comes back, nothing is logged here
// Proves: Into a folder of the user's own, with blanks => logged, the folder is appended in quotes
TEST(InstallMsiPackage, GivesTheResultUnlessItIsAWantedRestart)
{
    FakeMachine machine;
    LogCapture log;
    for (const UINT result :
         {0u, 2u, 5u, 1601u, 1602u, 1603u, 1618u, 1619u, 1620u, 1638u, 1640u, 1641u, 1642u, 3009u, 3010u, 3011u, 3012u})
    {
        SCOPED_TRACE(result);
        const bool isRestart = result == 1641 || result == 3010 || result == 3011;
        machine.packageResults[L"C:\\a b.msi"] = result;
        EXPECT_EQ(InstallMsiPackage(L"C:\\a b.msi", L""), isRestart ? 0 : static_cast<int>(result));
        const std::vector<std::wstring> line = {L"System reboot may be required for C:\\a b.msi."};
        EXPECT_EQ(log.Take(), isRestart ? line : std::vector<std::wstring>());
    }
    const std::wstring call = L"install C:\\a b.msi | REBOOT=ReallySuppress MSIFASTINSTALL=3 LAUNCHED_FROM_MIM=\"1\"";
    EXPECT_THAT(machine.steps, Each(call));
    machine.packageResults.clear();
    EXPECT_EQ(InstallMsiPackage(L"C:\\a b.msi", L"D:\\My Programs\\Tavik"), 0);
    EXPECT_EQ(machine.steps.back(), call + L" INSTALLDIR=\"D:\\My Programs\\Tavik\"");
    EXPECT_THAT(log.Take(), ElementsAre(L"Using custom install directory D:\\My Programs\\Tavik"));
}

// The Program Files folder is a folder of the test.
class GetCustomInstallDirTest : public testing::Test
{
protected:
    void Register(const std::wstring& folder) const { registry_.SetString(kInstallHaldenKey, L"InstallDir", folder); }
    void TearDown() override { EXPECT_THAT(log_.Lines(), IsEmpty()); }

    MachineRegistry registry_;
    LogCapture log_;
    TemporaryFolder programFiles_;
    std::wstring defaultFolder_ = programFiles_ / L"Tavik";
    SUBSTITUTE(SHGetSpecialFolderPathW)
    specialFolder_{[this](HWND owner, wchar_t* path, int folder, BOOL create) {
        EXPECT_EQ(std::tuple(owner, folder, create), std::tuple(nullptr, 0x26, FALSE));
        wcscpy(path, programFiles_.Path().c_str());
        return TRUE;
    }};
};

// Proves: The registered folder is another than the default one => it is the user's own
// Proves: It is the default one in another spelling: letter case, short name, backslash at the end => none
// Proves: The default one exists, the registered one does not or cannot be opened => none, nothing is logged
TEST_F(GetCustomInstallDirTest, IsTheRegisteredFolderWhenItExistsAndIsNotTheDefaultOne)
{
    programFiles_.CreateFolder(L"Tavik");
    for (const wchar_t* spelling : {L"Tavik", L"TAVIK", L"tavik\\", L".\\Tavik", L"Tavik\\..\\Tavik", L"gone"})
    {
        Register(programFiles_ / spelling);
        EXPECT_EQ(GetCustomInstallDir(), L"") << PrintToString(std::wstring(spelling));
    }
    const std::wstring own = programFiles_.CreateFolder(L"Own Choice");
    Register(own);
    EXPECT_EQ(GetCustomInstallDir(), own);
}

// Proves: The default folder does not exist => whatever is registered, even a folder that does not exist
TEST_F(GetCustomInstallDirTest, IsTheRegisteredFolderWhenThereIsNoDefaultOne)
{
    Register(L"Q:\\gone");
    EXPECT_EQ(GetCustomInstallDir(), L"Q:\\gone");
    Register(defaultFolder_);
    EXPECT_EQ(GetCustomInstallDir(), defaultFolder_);
}

// Proves: Key or value is missing => none, nothing is logged
TEST_F(GetCustomInstallDirTest, IsEmptyWithoutTheKeyOrTheValueAndNoFolderIsAskedFor)
{
    int asked = 0;
    SUBSTITUTE(SHGetSpecialFolderPathW) count([&](auto...) { return ++asked, FALSE; });
    EXPECT_EQ(GetCustomInstallDir(), L"");
    registry_.CreateKey(kInstallHaldenKey);
    EXPECT_EQ(GetCustomInstallDir(), L"");
    registry_.SetValue(kInstallHaldenKey, L"InstallDir", REG_DWORD, {1, 0, 0, 0});
    EXPECT_EQ(GetCustomInstallDir(), L"");
    EXPECT_EQ(asked, 0);
}
}  // namespace
}  // namespace repair
