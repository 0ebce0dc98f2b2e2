#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "acquisition/server_folder.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/substitute.h"

IMPORTED(CreateDirectoryW)
IMPORTED(GetFileAttributesW)
IMPORTED(RegCloseKey)
IMPORTED(RegGetValueW)
IMPORTED(RegOpenKeyExW)

using testing::ElementsAre;
using testing::IsEmpty;

namespace repair
{
namespace
{
constexpr wchar_t kKey[] = L"SOFTWARE\\Tavik";
constexpr wchar_t kMakersFolder[] = L"https://download.tavik.example/drivers/installer/vlt/";

class ServerOverride : public testing::TestWithParam<const wchar_t*>
{
};

// Proves: The value names another server => it comes back exactly as stored, and is logged
// Proves: It has no slash at its end => none is added
// Proves: It is empty => an empty folder and a line without one; the address cannot be split afterwards
TEST_P(ServerOverride, ComesBackAsStoredAndIsLogged)
{
    MachineRegistry registry;
    registry.SetString(kKey, L"DWXServerFolder", GetParam());
    LogCapture log;
    EXPECT_EQ(GetServerFolder(), GetParam());
    EXPECT_THAT(log.Lines(), ElementsAre(std::wstring(L"Change server to ") + GetParam() + L"."));
}

INSTANTIATE_TEST_SUITE_P(All, ServerOverride,
                         testing::Values(L"http://mirror/x/", L"http://mirror/x",  // no slash added
                                         L"  http://mirror/ ", L"not an address", L"\u00e9", L""));

// Proves: No key, no value => the maker's server, nothing is logged
TEST(ServerFolder, WithoutTheKeyItIsTheMakersServer)
{
    MachineRegistry registry;
    LogCapture log;
    EXPECT_EQ(GetServerFolder(), kMakersFolder);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ServerFolder, WithoutTheValueItIsTheMakersServer)
{
    MachineRegistry registry;
    registry.SetString(kKey, L"Other", L"http://mirror/");
    LogCapture log;
    EXPECT_EQ(GetServerFolder(), kMakersFolder);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: The value is no text, or reading it fails => the maker's server, nothing is logged, the key is closed
TEST(ServerFolder, ValueThatIsNoTextIsPassedOver)
{
    MachineRegistry registry;
    registry.SetValue(kKey, L"DWXServerFolder", REG_BINARY, {'h', 0, 0, 0});
    LogCapture log;
    EXPECT_EQ(GetServerFolder(), kMakersFolder);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Proves: It is very long => cut in the log only
TEST(ServerFolder, LongOverrideIsCutInTheLogOnly)
{
    MachineRegistry registry;
    const std::wstring address = L"http://mirror/" + std::wstring(3000, L'x');
    registry.SetString(kKey, L"DWXServerFolder", address);
    LogCapture log;
    EXPECT_EQ(GetServerFolder(), address);
    EXPECT_THAT(log.Lines(), ElementsAre((L"Change server to " + address).substr(0, 1023)));
}

TEST(ServerFolder, KeyIsOpenedForReadingAndClosedAlsoWhenTheReadFails)
{
    const HKEY given = reinterpret_cast<HKEY>(static_cast<INT_PTR>(0x1111));
    int closed = 0;
    SUBSTITUTE(RegOpenKeyExW)
    open([&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(path, L"SOFTWARE\\Tavik");
        EXPECT_EQ(options, 0u);
        EXPECT_EQ(access, 0x20019u);
        *key = given;
        return ERROR_SUCCESS;
    });
    SUBSTITUTE(RegCloseKey)
    close([&](HKEY key) {
        EXPECT_EQ(key, given);
        ++closed;
        return ERROR_SUCCESS;
    });
    SUBSTITUTE(RegGetValueW) get([](auto...) { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(GetServerFolder(), kMakersFolder);
    EXPECT_EQ(closed, 1);
}

// Needs a process that has not written a log line before.
// Proves: The line cannot be logged => the maker's server
TEST(ServerFolder, OverrideThatCannotBeLoggedIsNotUsed)
{
    MachineRegistry registry;
    registry.SetString(kKey, L"DWXServerFolder", L"http://mirror/");
    SUBSTITUTE(GetFileAttributesW) look([](const wchar_t*) { return INVALID_FILE_ATTRIBUTES; });
    SUBSTITUTE(CreateDirectoryW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED); });
    EXPECT_EQ(GetServerFolder(), kMakersFolder);
}
}  // namespace
}  // namespace repair
