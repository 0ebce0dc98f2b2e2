// The folder that `run` works in: whose folder is used, and whose is made anew. Works on this machine's own folder.
#include "companion/safe_place.h"

#include "support/test.h"

#include <aclapi.h>

#include "base/files.h"

IMPORTED(GetSecurityInfo, SetSecurityInfo)

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

TEST_F(SafePlaceTest, OneRunAtATime)
{
    const SafePlace place;
    EXPECT_FALSE(place.IsTaken());
    EXPECT_TRUE(SafePlace().IsTaken());
}
