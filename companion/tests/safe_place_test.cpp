// The folder that `run` works in: whose folder is used, and whose is made anew. Works on this machine's own folder.
#include "companion/safe_place.h"

#include "support/test.h"

#include <aclapi.h>

#include "base/files.h"
#include "companion/failure.h"
#include "companion/recovery.h"

IMPORTED(GetSecurityInfo, MoveFileW, SetSecurityInfo)

using namespace repair;

namespace
{
const std::wstring kFolder = GetProgramFolder() + L"\\Repair";
const std::wstring kPlanted = kFolder + L"\\planted";
}  // namespace

class SafePlaceTest : public testing::Test
{
protected:
    SafePlaceTest()
    {
        CreateDirectories(kFolder);
        const FileHandle planted(CreateFileW(kPlanted.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    }
    ~SafePlaceTest() override { RemoveAll(kFolder); }
};

TEST_F(SafePlaceTest, AFolderOfAdministratorsIsUsedAndGetsTheRightsAgain)
{
    const RECORD(SetSecurityInfo) set;
    const SafePlace place;
    EXPECT_FALSE(place.IsTaken());
    EXPECT_TRUE(Exists(kPlanted));
    ASSERT_EQ(set.Calls().size(), 1U);
    EXPECT_EQ(std::get<2>(set.Calls().front()), DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION);
}

TEST_F(SafePlaceTest, AFolderOfAnotherOwnerIsMadeAnew)
{
    static bool isFirst = true;
    isFirst = true;
    SUBSTITUTE(GetSecurityInfo)
    get([](HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID* owner, PSID*, PACL*, PACL*,
           PSECURITY_DESCRIPTOR* memory) {
        const WELL_KNOWN_SID_TYPE type = isFirst ? WinBuiltinUsersSid : WinBuiltinAdministratorsSid;
        isFirst = false;
        DWORD size = SECURITY_MAX_SID_SIZE;
        *memory = LocalAlloc(LPTR, size);
        *owner = *memory;
        CreateWellKnownSid(type, nullptr, *owner, &size);
        return DWORD{ERROR_SUCCESS};
    });
    const SafePlace place;
    EXPECT_FALSE(place.IsTaken());
    EXPECT_FALSE(isFirst);
    EXPECT_FALSE(Exists(kPlanted));
}

TEST_F(SafePlaceTest, AFolderWhoseOwnerCannotBeReadIsLeftAlone)
{
    SUBSTITUTE(GetSecurityInfo) get([](auto...) { return DWORD{ERROR_ACCESS_DENIED}; });
    EXPECT_THROW(SafePlace(), Failure);
    EXPECT_TRUE(Exists(kPlanted));
}

TEST_F(SafePlaceTest, AFileThatIsOpenInTheTemporaryFolderGivesTheNextRunAnotherOne)
{
    SafePlace place;
    place.MakeTemporary();
    EXPECT_EQ(place.Temporary(), kFolder + L"\\Temp");
    {
        const FileHandle open(CreateFileW((place.Temporary() + L"\\open").c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                          nullptr, CREATE_ALWAYS, 0, nullptr));
        place.MakeTemporary();
        EXPECT_EQ(place.Temporary(), kFolder + L"\\Temp2");
        EXPECT_TRUE(Exists(kFolder + L"\\Temp2\\Tavik_VLTInstallerDownload\\LPInstaller"));
    }
    place.MakeTemporary();
    EXPECT_EQ(place.Temporary(), kFolder + L"\\Temp");
    EXPECT_FALSE(Exists(kFolder + L"\\Temp2"));
}

TEST_F(SafePlaceTest, KeptPackagesGetTheRightsOfTheFolder)
{
    SafePlace place;
    place.MakeTemporary();
    const RECORD(SetSecurityInfo) set;
    EXPECT_TRUE(place.KeepTemporary());
    EXPECT_EQ(set.Calls().size(), 1U);
}

TEST_F(SafePlaceTest, AnInstallerIsCopiedWhenItsFolderCannotBeMoved)
{
    SafePlace place;
    place.MakeTemporary();
    const std::wstring installer = place.Temporary() + L"\\dwx2_install.exe";
    {
        const FileHandle made(CreateFileW(installer.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    }
    SUBSTITUTE(MoveFileW)
    move([](auto...) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    });
    LastRun run;
    run.lost = kMainProduct;
    KeepInstaller(place, installer, run);
    EXPECT_EQ(run.keptInstaller, kFolder + L"\\Kept\\dwx2_install.exe");
    KeepInstaller(place, run.keptInstaller, run);  // it cannot be moved aside either
    EXPECT_TRUE(Exists(run.keptInstaller)) << "and is not removed with its folder";
}

TEST_F(SafePlaceTest, OneRunAtATime)
{
    const SafePlace place;
    EXPECT_FALSE(place.IsTaken());
    EXPECT_TRUE(SafePlace().IsTaken());
}
