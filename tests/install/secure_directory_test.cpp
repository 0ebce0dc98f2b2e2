#include "install/secure_directory.h"

#include <windows.h>
#include <aclapi.h>
#include <wtsapi32.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/error_matcher.h"
#include "support/log_capture.h"
#include "support/substitute.h"
#include "support/temporary_folder.h"

using testing::ElementsAre;
using testing::IsEmpty;

IMPORTED(CreateDirectoryW, CreateFileW, CreateWellKnownSid, InitializeSecurityDescriptor, LocalAlloc, LocalFree,
         ProcessIdToSessionId, SetEntriesInAclW, SetSecurityDescriptorDacl, WTSFreeMemory, WTSQuerySessionInformationW)

namespace repair
{
namespace
{
// Rights, mode, inheritance, form and type of the trustee, and its name or the bytes of its SID.
using SeenEntry = std::tuple<DWORD, int, DWORD, int, int, std::wstring>;

// The calls that set up the rights and the folder, in order, in a session of user VILLA\ann.
class SecureDirectoryTest : public testing::Test
{
protected:
    ~SecureDirectoryTest() override
    {
        for (const HANDLE file : markers_)
        {
            CloseHandle(file);
        }
    }

    TemporaryFolder parent_;
    std::wstring folder_ = parent_ / L"Tavik\\LPInstaller";
    std::vector<std::string> calls_;
    std::vector<SeenEntry> entries_;
    std::vector<HANDLE> markers_;
    ULONG aclResult_ = ERROR_SUCCESS;  // of SetEntriesInAclW
    DWORD folderError_ = ERROR_SUCCESS;
    bool markerFails_ = false;
    ACL* list_ = nullptr;
    std::vector<void*> freed_;
    int sessionTexts_ = 0;

    SUBSTITUTE(ProcessIdToSessionId)
    session_{[](DWORD process, DWORD* session) {
        EXPECT_EQ(process, GetCurrentProcessId());
        *session = 7;
        return TRUE;
    }};
    SUBSTITUTE(WTSQuerySessionInformationW)
    query_{[this](HANDLE server, DWORD session, WTS_INFO_CLASS information, wchar_t** text, DWORD* bytes) {
        EXPECT_EQ(std::tuple(server, session), std::tuple(nullptr, 7u));
        EXPECT_TRUE(information == 5 || information == 7);
        const std::wstring answer = information == 7 ? L"VILLA" : L"ann";
        *text = new wchar_t[answer.size() + 1];
        wcscpy(*text, answer.c_str());
        *bytes = static_cast<DWORD>((answer.size() + 1) * 2);
        ++sessionTexts_;
        return TRUE;
    }};
    SUBSTITUTE(WTSFreeMemory)
    release_{[this](void* memory) {
        --sessionTexts_;
        delete[] static_cast<wchar_t*>(memory);
    }};
    SUBSTITUTE(SetEntriesInAclW)
    setEntries_{[this](ULONG count, EXPLICIT_ACCESSW* entries, ACL* previous, ACL** list) {
        calls_.push_back("entries");
        EXPECT_EQ(previous, nullptr);
        for (ULONG i = 0; i < count; ++i)
        {
            const EXPLICIT_ACCESSW& entry = entries[i];
            EXPECT_EQ(std::tuple(entry.Trustee.pMultipleTrustee, entry.Trustee.MultipleTrusteeOperation),
                      std::tuple(nullptr, NO_MULTIPLE_TRUSTEE));
            const BYTE* const sid = reinterpret_cast<const BYTE*>(entry.Trustee.ptstrName);
            const std::wstring trustee = entry.Trustee.TrusteeForm == TRUSTEE_IS_SID
                                             ? std::wstring(sid, sid + GetLengthSid(entry.Trustee.ptstrName))
                                             : entry.Trustee.ptstrName;
            entries_.emplace_back(entry.grfAccessPermissions, entry.grfAccessMode, entry.grfInheritance,
                                  entry.Trustee.TrusteeForm, entry.Trustee.TrusteeType, trustee);
        }
        if (aclResult_ != ERROR_SUCCESS)
        {
            SetLastError(aclResult_);
            return DWORD{aclResult_};
        }
        list_ = static_cast<ACL*>(LocalAlloc(LPTR, sizeof(ACL)));
        InitializeAcl(list_, sizeof(ACL), ACL_REVISION);
        *list = list_;
        return DWORD{ERROR_SUCCESS};
    }};
    SUBSTITUTE(CreateDirectoryW)
    createFolder_{[this](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
        calls_.push_back(security != nullptr ? "secured folder" : "plain folder");
        if (security != nullptr)
        {
            EXPECT_EQ(path, folder_);
            EXPECT_EQ(std::tuple(security->nLength, security->bInheritHandle), std::tuple(24u, FALSE));
            BOOL present = FALSE;
            BOOL defaulted = TRUE;
            ACL* list = nullptr;
            EXPECT_EQ(LocalSize(security->lpSecurityDescriptor), 40u);
            EXPECT_NE(GetSecurityDescriptorDacl(security->lpSecurityDescriptor, &present, &list, &defaulted), FALSE);
            EXPECT_EQ(std::tuple(present, defaulted, list), std::tuple(TRUE, FALSE, list_));
        }
        return security != nullptr && folderError_ != ERROR_SUCCESS ? FailWith(folderError_)
                                                                    : createFolder_.Original()(path, nullptr);
    }};
    SUBSTITUTE(CreateFileW)
    createFile_{[this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
                       DWORD flags, HANDLE model) {
        const bool isMarker = path == folder_ + L"\\~.tmp" && creation == CREATE_ALWAYS;
        if (isMarker && markerFails_)
        {
            return FailWith(5, INVALID_HANDLE_VALUE);
        }
        const HANDLE file = createFile_.Original()(path, access, share, security, creation, flags, model);
        if (isMarker)
        {
            calls_.push_back("marker");
            EXPECT_EQ(std::tuple(access, share, security, flags, model),
                      std::tuple(0xC0000000u, 0u, nullptr, 0x04000000u, nullptr));
            EXPECT_NE(file, INVALID_HANDLE_VALUE);
            markers_.push_back(file);
        }
        return file;
    }};
    SUBSTITUTE(LocalFree)
    localFree_{[this](void* memory) {
        freed_.push_back(memory);
        return localFree_.Original()(memory);
    }};
};

// Proves: The rights are made => full access for administrators and system, reading, running and deleting for the session's user; in this order, inherited by what lies inside
TEST_F(SecureDirectoryTest, GrantsThreeEntriesInThisOrder)
{
    EXPECT_EQ(CreateSecureDirectory(folder_), 0u);
    const std::wstring administrators = {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0};  // S-1-5-32-544
    const std::wstring localSystem = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};                    // S-1-5-18
    EXPECT_THAT(entries_, ElementsAre(SeenEntry{0x10000000, 2, 3, 0, 5, administrators},
                                      SeenEntry{0x10000000, 2, 3, 0, 5, localSystem},
                                      SeenEntry{0xA0010000, 2, 3, 1, 5, L"VILLA\\ann"}));
    EXPECT_EQ(sessionTexts_, 0);  // all given back
}

// Proves: The folder is made => rights, parents, removal of the old one, the folder with the rights, the marker; the memory is given back
TEST_F(SecureDirectoryTest, SetsUpTheRightsFirstThenTheParentsThenTheFolderThenTheMarker)
{
    EXPECT_EQ(CreateSecureDirectory(folder_), 0u);
    EXPECT_THAT(calls_, ElementsAre("entries", "plain folder", "secured folder", "marker"));
    EXPECT_THAT(freed_, testing::Contains(static_cast<void*>(list_)));
}

// Proves: The marker file => stays open until the process ends, keeps the folder from being removed, and goes with the process, even a killed one
TEST_F(SecureDirectoryTest, MarkerStaysOpenAndKeepsTheFolderFromBeingRemoved)
{
    ASSERT_EQ(CreateSecureDirectory(folder_), 0u);
    ASSERT_THAT(markers_, testing::SizeIs(1));
    DWORD flags = 0;
    EXPECT_NE(GetHandleInformation(markers_[0], &flags), FALSE);
    EXPECT_THROW(RemoveAll(folder_), std::filesystem::filesystem_error);
    EXPECT_TRUE(Exists(folder_));
    CloseHandle(markers_[0]);
    markers_.clear();
    EXPECT_FALSE(Exists(folder_ + L"\\~.tmp"));  // gone with its handle
}

// Proves: Something of an earlier run is there, or a file in the folder's place => it is gone before the installer starts
TEST_F(SecureDirectoryTest, RemovesWhatAnEarlierRunLeft)
{
    CreateDirectories(folder_ + L"\\HL\\halden");
    parent_.WriteBytes(L"Tavik\\LPInstaller\\HL\\halden\\planted.msi", "x");
    EXPECT_EQ(CreateSecureDirectory(folder_), 0u);
    EXPECT_FALSE(Exists(folder_ + L"\\HL"));
    EXPECT_TRUE(Exists(folder_ + L"\\~.tmp"));
}

// Proves: The access list cannot be made => its error, nothing is created; the installation goes on with what is there
TEST_F(SecureDirectoryTest, ReturnsTheErrorAndCreatesNothingWhenTheAccessListCannotBeMade)
{
    aclResult_ = 1332;
    LogCapture log;
    EXPECT_EQ(CreateSecureDirectory(folder_), 1332u);
    EXPECT_THAT(calls_, ElementsAre("entries"));
    EXPECT_FALSE(Exists(parent_ / L"Tavik"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: The descriptor cannot be set up => its error, an old folder stays, the memory is given back
TEST_F(SecureDirectoryTest, ReturnsTheErrorAndLeavesAnOldFolderWhenTheDescriptorCannotBeInitialized)
{
    CreateDirectories(folder_);
    calls_.clear();
    SUBSTITUTE(InitializeSecurityDescriptor)
    initialize([](void*, DWORD revision) {
        EXPECT_EQ(revision, 1u);
        return FailWith(1305);
    });
    EXPECT_EQ(CreateSecureDirectory(folder_), 1305u);
    EXPECT_THAT(calls_, ElementsAre("entries"));
    EXPECT_TRUE(Exists(folder_));
    EXPECT_THAT(freed_, testing::Contains(static_cast<void*>(list_)));
}

TEST_F(SecureDirectoryTest, ReturnsTheErrorAndCreatesNothingWhenTheListCannotBeSet)
{
    SUBSTITUTE(SetSecurityDescriptorDacl)
    setList([this](void*, BOOL present, ACL* list, BOOL defaulted) {
        EXPECT_EQ(std::tuple(present, list, defaulted), std::tuple(TRUE, list_, FALSE));
        return FailWith(1336);
    });
    EXPECT_EQ(CreateSecureDirectory(folder_), 1336u);
    EXPECT_THAT(calls_, ElementsAre("entries"));
}

// Proves: The folder cannot be created (extraction folder) => its error, no marker, the memory is given back; the installation goes on
TEST_F(SecureDirectoryTest, ReturnsTheErrorAndMakesNoMarkerWhenTheFolderCannotBeCreated)
{
    folderError_ = 112;
    EXPECT_EQ(CreateSecureDirectory(folder_), 112u);
    EXPECT_THAT(markers_, IsEmpty());
    EXPECT_THAT(freed_, testing::Contains(static_cast<void*>(list_)));
}

// Proves: The parents cannot be created => exception "create_directories" before anything runs; -1 through the guard
TEST_F(SecureDirectoryTest, ThrowsWhenTheParentsCannotBeCreated)
{
    parent_.WriteBytes(L"Tavik", "a file where the parent should be");
    const auto error = FileErrorOf([this] { CreateSecureDirectory(folder_); });
    EXPECT_THAT(error.what(), testing::HasSubstr("create_directories"));
}

// Proves: The old folder cannot be removed => exception "remove_all" before anything runs; -1 through the guard
TEST_F(SecureDirectoryTest, ThrowsWhenTheOldFolderCannotBeRemoved)
{
    CreateDirectories(folder_);
    const std::wstring locked = parent_.WriteBytes(L"Tavik\\LPInstaller\\locked", "x");
    const HANDLE open = CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const auto error = FileErrorOf([this] { CreateSecureDirectory(folder_); });
    EXPECT_THAT(error.what(), testing::HasSubstr("remove_all"));
    EXPECT_EQ(error.code().value(), ERROR_SHARING_VIOLATION);
    EXPECT_THAT(markers_, IsEmpty());
    CloseHandle(open);
}

// Proves: The marker cannot be created => passed over
TEST_F(SecureDirectoryTest, GoesOnWithoutAMarkerThatCannotBeCreated)
{
    markerFails_ = true;
    EXPECT_EQ(CreateSecureDirectory(folder_), 0u);
    EXPECT_TRUE(Exists(folder_));
}

TEST_F(SecureDirectoryTest, AsksForTheTwoWellKnownGroups)
{
    std::vector<int> types;
    SUBSTITUTE(CreateWellKnownSid)
    wellKnown([&](WELL_KNOWN_SID_TYPE type, void* domain, void* sid, DWORD* size) {
        types.push_back(type);
        return wellKnown.Original()(type, domain, sid, size);
    });
    CreateSecureDirectory(folder_);
    EXPECT_THAT(types, ElementsAre(26, 22));
}

// Proves: The session cannot be asked => an empty name is used, nothing is released
TEST_F(SecureDirectoryTest, UsesAnEmptyNameAndReleasesNothingWhenTheSessionCannotBeAsked)
{
    SUBSTITUTE(WTSQuerySessionInformationW)
    query([](HANDLE, DWORD, WTS_INFO_CLASS, wchar_t**, DWORD*) { return FailWith(7022); });
    CreateSecureDirectory(folder_);
    ASSERT_THAT(entries_, testing::SizeIs(3));
    EXPECT_EQ(std::get<5>(entries_[2]), L"\\");
    EXPECT_EQ(sessionTexts_, 0);
}

TEST(CreateSecureDirectory, RealAccessListOfTheRealSessionIsAccepted)
{
    TemporaryFolder parent;
    const std::wstring folder = parent / L"a\\b";
    HANDLE marker = INVALID_HANDLE_VALUE;
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
               DWORD flags, HANDLE model) {
        const HANDLE file = create.Original()(path, access, share, security, creation, flags, model);
        marker = std::wstring(path).ends_with(L"~.tmp") ? file : marker;
        return file;
    });
    EXPECT_EQ(CreateSecureDirectory(folder), 0u);
    EXPECT_TRUE(Exists(folder));
    CloseHandle(marker);
}
}  // namespace
}  // namespace repair
