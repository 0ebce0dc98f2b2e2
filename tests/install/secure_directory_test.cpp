#include "install/secure_directory.h"

#include <windows.h>
#include <aclapi.h>
#include <wtsapi32.h>

#include <optional>

#include "support/error_matcher.h"
#include "support/folder_link.h"
#include "support/log_capture.h"
#include "support/real_windows.h"
#include "support/temporary_folder.h"
#include "support/test.h"

IMPORTED(CloseHandle, CreateDirectoryW, CreateFileW, GetFileInformationByHandleEx, GetSecurityInfo,
         InitializeSecurityDescriptor, LocalAlloc, LocalFree, ProcessIdToSessionId, SetEntriesInAclW,
         SetFileInformationByHandle, SetSecurityDescriptorControl, SetSecurityDescriptorDacl,
         SetSecurityDescriptorOwner, WTSFreeMemory, WTSQuerySessionInformationW)

namespace repair
{
namespace
{
// Rights, mode, inheritance, form and type of the trustee, and its name or the bytes of its SID.
using SeenEntry = std::tuple<DWORD, int, DWORD, int, int, std::wstring>;

// The codes with which the calls fail.
struct Failures
{
    DWORD entries = 0;
    DWORD memory = 0;
    DWORD descriptor = 0;
    DWORD list = 0;
    DWORD control = 0;
    DWORD folder = 0;
    DWORD marker = 0;
};

struct WellKnown
{
    explicit WellKnown(WELL_KNOWN_SID_TYPE type)
    {
        DWORD size = sizeof(sid);
        EXPECT_NE(CreateWellKnownSid(type, nullptr, sid, &size), FALSE);
    }
    alignas(DWORD) BYTE sid[SECURITY_MAX_SID_SIZE] = {};
};

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

    DWORD Create() { return CreateSecureDirectory(folder_, held_); }

    // Puts a link in the folder's place.
    void PlaceLink()
    {
        link_.emplace(folder_, target_);
        EXPECT_TRUE(link_->IsThere());
    }

    TemporaryFolder parent_;
    HeldFolder held_;  // the parent
    std::wstring target_ = parent_.CreateFolder(L"target");
    std::optional<FolderLink> link_;
    std::wstring folder_ = parent_ / L"Tavik\\LPInstaller";
    std::vector<std::string> calls_;
    std::vector<SeenEntry> entries_;
    std::vector<HANDLE> markers_;
    std::vector<bool> owners_;                            // of each folder: the administrators, or none
    WellKnown folderOwner_{WinBuiltinAdministratorsSid};  // as they are read
    WellKnown markerOwner_{WinBuiltinAdministratorsSid};
    bool isProtected_ = true;
    Failures failures_;
    ACL* list_ = nullptr;
    RECORD(LocalFree) freed_;
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
        if (failures_.entries != 0)
        {
            return FailWith(failures_.entries, DWORD{ERROR_INVALID_PARAMETER});  // the last error is what counts
        }
        list_ = static_cast<ACL*>(LocalAlloc(LPTR, sizeof(ACL)));
        InitializeAcl(list_, sizeof(ACL), ACL_REVISION);
        *list = list_;
        return DWORD{ERROR_SUCCESS};
    }};
    SUBSTITUTE(LocalAlloc)
    allocate_{[this](UINT flags, SIZE_T bytes) {
        const bool isDescriptor = bytes == SECURITY_DESCRIPTOR_MIN_LENGTH;
        return isDescriptor && failures_.memory != 0 ? FailWith(failures_.memory, HLOCAL{nullptr})
                                                     : allocate_.Original()(flags, bytes);
    }};
    SUBSTITUTE(InitializeSecurityDescriptor)
    descriptor_{[this](void* descriptor, DWORD revision) {
        EXPECT_EQ(revision, 1u);
        return failures_.descriptor != 0 ? FailWith(failures_.descriptor)
                                         : descriptor_.Original()(descriptor, revision);
    }};
    SUBSTITUTE(SetSecurityDescriptorDacl)
    setList_{[this](void* descriptor, BOOL present, ACL* list, BOOL defaulted) {
        EXPECT_EQ(std::tuple(present, list, defaulted), std::tuple(TRUE, list_, FALSE));
        return failures_.list != 0 ? FailWith(failures_.list)
                                   : setList_.Original()(descriptor, present, list, defaulted);
    }};
    SUBSTITUTE(SetSecurityDescriptorControl)
    control_{[this](auto... arguments) {
        return failures_.control != 0 ? FailWith(failures_.control) : control_.Original()(arguments...);
    }};
    SUBSTITUTE(GetSecurityInfo)
    security_{[this](HANDLE object, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID* owner, PSID*, ACL**, ACL**,
                     PSECURITY_DESCRIPTOR* descriptor) {
        *descriptor = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
        descriptor_.Original()(*descriptor, SECURITY_DESCRIPTOR_REVISION);
        control_.Original()(*descriptor, SE_DACL_PROTECTED, isProtected_ ? SE_DACL_PROTECTED : 0);
        *owner = !markers_.empty() && object == markers_.back() ? markerOwner_.sid : folderOwner_.sid;
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
            SECURITY_DESCRIPTOR_CONTROL control = 0;
            DWORD revision = 0;
            EXPECT_NE(GetSecurityDescriptorControl(security->lpSecurityDescriptor, &control, &revision), FALSE);
            EXPECT_EQ(std::pair(control & (SE_DACL_PRESENT | SE_DACL_PROTECTED), revision), std::pair(0x1004, 1ul));
            PSID owner = nullptr;
            EXPECT_NE(GetSecurityDescriptorOwner(security->lpSecurityDescriptor, &owner, &defaulted), FALSE);
            const bool isAdministrators =
                owner != nullptr && IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != FALSE;
            EXPECT_TRUE(isAdministrators || owner == nullptr);
            owners_.push_back(isAdministrators);
        }
        return security != nullptr && failures_.folder != 0 ? FailWith(failures_.folder)
                                                            : createFolder_.Original()(path, nullptr);
    }};
    SUBSTITUTE(CreateFileW)
    createFile_{[this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
                       DWORD flags, HANDLE model) {
        const bool isMarker = path == folder_ + L"\\~.tmp" && creation == CREATE_ALWAYS;
        if (isMarker && failures_.marker != 0)
        {
            return FailWith(failures_.marker, INVALID_HANDLE_VALUE);
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
};

// Proves: The rights are made => full access for administrators and system, reading, running and deleting for the session's user; in this order, inherited by what lies inside
TEST_F(SecureDirectoryTest, GrantsThreeEntriesInThisOrder)
{
    EXPECT_EQ(Create(), 0u);
    const std::wstring administrators = {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0};  // S-1-5-32-544
    const std::wstring localSystem = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};                    // S-1-5-18
    EXPECT_THAT(entries_, ElementsAre(SeenEntry{0x10000000, 2, 3, 0, 5, administrators},
                                      SeenEntry{0x10000000, 2, 3, 0, 5, localSystem},
                                      SeenEntry{0xA0010000, 2, 3, 1, 5, L"VILLA\\ann"}));
    EXPECT_EQ(sessionTexts_, 0);  // all freed
}

// Proves: The folder is made => rights, parents, removal of the old one, the folder with the rights, the marker; the memory is freed
TEST_F(SecureDirectoryTest, SetsUpTheRightsFirstThenTheParentsThenTheFolderThenTheMarker)
{
    EXPECT_EQ(Create(), 0u);
    EXPECT_THAT(calls_, ElementsAre("entries", "plain folder", "secured folder", "marker"));
    EXPECT_THAT(freed_.Calls(), Contains(std::tuple(list_)));
}

// Proves: The marker file => stays open until the process ends, keeps the folder from being removed, and goes with the process, even a killed one
TEST_F(SecureDirectoryTest, MarkerStaysOpenAndKeepsTheFolderFromBeingRemoved)
{
    ASSERT_EQ(Create(), 0u);
    ASSERT_THAT(markers_, SizeIs(1));
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
    EXPECT_EQ(Create(), 0u);
    EXPECT_FALSE(Exists(folder_ + L"\\HL"));
    EXPECT_TRUE(Exists(folder_ + L"\\~.tmp"));
}

// --- Swaps
// Proves: The folder gets its owner => the administrators; where that fails, none as before, unless the folder is there already
TEST_F(SecureDirectoryTest, AdministratorsOwnTheFolderWhereTheProcessMaySetThem)
{
    EXPECT_EQ(Create(), 0u);
    EXPECT_THAT(std::exchange(owners_, {}), ElementsAre(true));
    for (const DWORD code : {DWORD{ERROR_INVALID_OWNER}, DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_ALREADY_EXISTS}})
    {
        CloseHandle(markers_.back());
        SUBSTITUTE(CreateDirectoryW)
        create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
            PSID owner = nullptr;
            BOOL defaulted = FALSE;
            GetSecurityDescriptorOwner(security->lpSecurityDescriptor, &owner, &defaulted);
            owners_.push_back(owner != nullptr);
            return owner != nullptr ? FailWith(code) : createFolder_.Original()(path, nullptr);
        });
        const bool isThere = code == ERROR_ALREADY_EXISTS;
        EXPECT_EQ(Create(), isThere ? code : 0u);
        EXPECT_EQ(std::exchange(owners_, {}), (std::vector<bool>{true, isThere}));  // once more with the same owner
        EXPECT_EQ(Exists(folder_ + L"\\~.tmp"), !isThere);
    }
    markers_.clear();
}

// Removes the link as Windows does, and opens the link itself.
class LinkedDirectoryTest : public SecureDirectoryTest
{
protected:
    SUBSTITUTE(SetFileInformationByHandle)
    set_{[this](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        if (!link_)
        {
            return set_.Original()(object, kind, data, bytes);
        }
        link_.reset();
        return TRUE;
    }};
    SUBSTITUTE(GetFileInformationByHandleEx)
    information_{[this](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD bytes) {
        const BOOL done = information_.Original()(object, kind, data, bytes);
        if (kind == FileAttributeTagInfo && IsLink(folder_))
        {
            static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data)->FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        }
        return done;
    }};
};

// Proves: The extraction folder is replaced by a link before it is held => nothing is created through it; it is prepared once more, then exception "create_directories"; -1 through the guard
TEST_F(LinkedDirectoryTest, HasNoMarkerAndIsPreparedOnceMore)
{
    ONLY_ON_WINE("the host moves the folder away");
    int links = 1;
    SUBSTITUTE(CreateDirectoryW)
    create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
        const BOOL isMade = create.Original()(path, nullptr);
        if (security != nullptr && links-- > 0)
        {
            PlaceLink();
        }
        return isMade;
    });
    EXPECT_EQ(Create(), 0u);
    EXPECT_THAT(std::exchange(calls_, {}), ElementsAre("entries", "marker"));
    EXPECT_FALSE(IsLink(folder_));
    CloseHandle(markers_.back());
    markers_.clear();

    links = 2;
    ExpectFileError(FileErrorOf([this] { Create(); }), "create_directories", folder_, ERROR_CANT_RESOLVE_FILENAME);
    EXPECT_EQ(links, 0);
    EXPECT_THAT(calls_, ElementsAre("entries"));
}

// Proves: The extraction folder is replaced by a link before the marker is in it => it is prepared once more; the marker is in the new folder
TEST_F(LinkedDirectoryTest, IsPreparedOnceMoreIfALinkReplacesItLater)
{
    ONLY_ON_WINE("the host moves the open folder away");
    SUBSTITUTE(CreateFileW)
    create([&](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
               DWORD flags, HANDLE model) {
        if (creation == CREATE_ALWAYS && markers_.empty())
        {
            PlaceLink();
        }
        const HANDLE file = create.Original()(path, access, share, security, creation, flags, model);
        if (creation == CREATE_ALWAYS)
        {
            calls_.push_back("marker");
            markers_ = {file};
        }
        return file;
    });
    EXPECT_EQ(Create(), 0u);
    EXPECT_THAT(calls_, ElementsAre("entries", "plain folder", "secured folder", "marker", "secured folder", "marker"));
    EXPECT_FALSE(IsLink(folder_));
    EXPECT_TRUE(Exists(folder_ + L"\\~.tmp"));
    EXPECT_FALSE(Exists(target_ + L"\\~.tmp"));
}

// Proves: Another folder is in the place of the new one (made first, its owner, inherited rights, another file in it) => it is prepared once more, and not a third time
TEST_F(SecureDirectoryTest, IsPreparedOnceMoreIfItIsNotAsItWasMade)
{
    SUBSTITUTE(CloseHandle)
    close([&](HANDLE handle) {
        std::erase(markers_, handle);
        return close.Original()(handle);
    });
    const auto run = [&] {
        CreateDirectories(parent_ / L"Tavik");
        calls_.clear();
        EXPECT_EQ(Create(), 0u);
        EXPECT_THAT(markers_, testing::SizeIs(1));
        EXPECT_TRUE(Exists(folder_ + L"\\~.tmp"));
        CloseHandle(markers_.back());
        return calls_;
    };
    const std::vector<std::string> once = {"entries", "secured folder", "marker"};
    const std::vector<std::string> withoutMarker = {"entries", "secured folder", "secured folder", "marker"};
    EXPECT_EQ(run(), once);
    folderOwner_ = WellKnown(WinWorldSid);
    EXPECT_EQ(run(), withoutMarker);
    markerOwner_ = WellKnown(WinWorldSid);  // the owner that was set counts
    EXPECT_EQ(run(), withoutMarker);
    folderOwner_ = WellKnown(WinBuiltinAdministratorsSid);
    EXPECT_EQ(run(), once);
    isProtected_ = false;
    EXPECT_EQ(run(), withoutMarker);
    isProtected_ = true;
    {
        SUBSTITUTE(CreateDirectoryW)
        create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
            const BOOL isMade = create.Original()(path, security);
            parent_.WriteBytes(L"Tavik\\LPInstaller\\planted", "x");
            return isMade;
        });
        EXPECT_THAT(run(), ElementsAre("entries", "marker", "marker"));
    }
    {
        bool isQuicker = true;
        SUBSTITUTE(CreateDirectoryW)
        create([&](const wchar_t* path, SECURITY_ATTRIBUTES* security) {
            if (security != nullptr && std::exchange(isQuicker, false))
            {
                create.Original()(path, nullptr);
                parent_.WriteBytes(L"Tavik\\LPInstaller\\planted", "x");
            }
            return create.Original()(path, security);
        });
        EXPECT_THAT(run(), ElementsAre("entries", "marker"));
        EXPECT_FALSE(Exists(folder_ + L"\\planted"));
    }
    // The default owner is the marker's too.
    SUBSTITUTE(SetSecurityDescriptorOwner)
    noOwner([&](void* descriptor, PSID owner, BOOL defaulted) {
        failures_.folder = owner != nullptr ? ERROR_INVALID_OWNER : 0;
        return noOwner.Original()(descriptor, owner, defaulted);
    });
    EXPECT_THAT(run(), testing::SizeIs(7));
    folderOwner_ = WellKnown(WinWorldSid);
    EXPECT_THAT(run(), testing::SizeIs(4));
}

// A call that fails, and the calls until then; they leave an old folder unless they remove it.
struct FailedCall
{
    using Call = DWORD Failures::*;
    Call call;
    std::vector<std::string> calls;
    bool isOldFolderLeft;
};

using SecureDirectoryFailure = WithParam<SecureDirectoryTest, FailedCall>;
INSTANTIATE_TEST_SUITE_P(
    All, SecureDirectoryFailure,
    testing::Values(FailedCall{&Failures::entries, {"entries"}, true}, FailedCall{&Failures::memory, {"entries"}, true},
                    FailedCall{&Failures::descriptor, {"entries"}, true},
                    FailedCall{&Failures::list, {"entries"}, true}, FailedCall{&Failures::control, {"entries"}, true},
                    FailedCall{&Failures::folder, {"entries", "secured folder", "secured folder"}, false}));

// Proves: The access list cannot be made => its error, nothing is created; the installation goes on with what is there
// Proves: The descriptor cannot be set up => its error, an old folder stays, the memory is freed
// Proves: The folder cannot be created (extraction folder) => its error, no marker, the memory is freed; the installation goes on
TEST_P(SecureDirectoryFailure, ReturnsItsErrorAndGoesNoFurther)
{
    CreateDirectories(folder_);
    calls_.clear();
    failures_.*GetParam().call = 1332;
    const LogCapture log;
    EXPECT_EQ(Create(), 1332u);
    EXPECT_EQ(calls_, GetParam().calls);
    EXPECT_EQ(Exists(folder_), GetParam().isOldFolderLeft);
    EXPECT_EQ(testing::Value(freed_.Calls(), Contains(std::tuple(list_))), list_ != nullptr);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: The parents cannot be created => exception "create_directories" before anything runs; -1 through the guard
TEST_F(SecureDirectoryTest, ThrowsWhenTheParentsCannotBeCreated)
{
    parent_.WriteBytes(L"Tavik", "a file where the parent should be");
    const auto error = FileErrorOf([this] { Create(); });
    EXPECT_THAT(error.what(), HasSubstr("create_directories"));
}

// Proves: The old folder cannot be removed => exception "remove_all" before anything runs; -1 through the guard
TEST_F(SecureDirectoryTest, ThrowsWhenTheOldFolderCannotBeRemoved)
{
    CreateDirectories(folder_);
    const std::wstring locked = parent_.WriteBytes(L"Tavik\\LPInstaller\\locked", "x");
    const HANDLE open = CreateFileW(locked.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const auto error = FileErrorOf([this] { Create(); });
    EXPECT_THAT(error.what(), HasSubstr("remove_all"));
    EXPECT_EQ(error.code().value(), ERROR_SHARING_VIOLATION);
    EXPECT_THAT(markers_, IsEmpty());
    CloseHandle(open);
}

// Proves: The marker cannot be created => ignored
TEST_F(SecureDirectoryTest, GoesOnWithoutAMarkerThatCannotBeCreated)
{
    failures_.marker = 5;
    EXPECT_EQ(Create(), 0u);
    EXPECT_TRUE(Exists(folder_));
}

// Proves: The session cannot be asked => an empty name is used, nothing is released
TEST_F(SecureDirectoryTest, UsesAnEmptyNameAndReleasesNothingWhenTheSessionCannotBeAsked)
{
    SUBSTITUTE(WTSQuerySessionInformationW)
    query([](HANDLE, DWORD, WTS_INFO_CLASS, wchar_t**, DWORD*) { return FailWith(7022); });
    Create();
    ASSERT_THAT(entries_, SizeIs(3));
    EXPECT_EQ(std::get<5>(entries_[2]), L"\\");
    EXPECT_EQ(sessionTexts_, 0);
}
}  // namespace
}  // namespace repair
