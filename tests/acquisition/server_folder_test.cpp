#include "acquisition/server_folder.h"

#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/test.h"

IMPORTED(CreateDirectoryW, GetFileAttributesW, RegGetValueW)

namespace repair
{
namespace
{
constexpr wchar_t kKey[] = L"SOFTWARE\\Tavik";

void ExpectTheMakersServerAndNoLine()
{
    const LogCapture log;
    EXPECT_EQ(GetServerFolder(), L"https://download.tavik.example/drivers/installer/vlt/");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

using ServerOverride = testing::TestWithParam<std::wstring>;

// Proves: The value names another server => it comes back exactly as stored, and is logged
// Proves: It has no slash at its end => none is added
// Proves: It is empty => an empty folder and a line without one; the address cannot be split afterwards
// Proves: It is very long => cut in the log only
TEST_P(ServerOverride, ComesBackAsStoredAndIsLogged)
{
    const MachineRegistry registry;
    registry.SetString(kKey, L"DWXServerFolder", GetParam());
    const LogCapture log;
    EXPECT_EQ(GetServerFolder(), GetParam());
    EXPECT_THAT(log.Lines(), ElementsAre((L"Change server to " + GetParam() + L".").substr(0, 1023)));
}

INSTANTIATE_TEST_SUITE_P(All, ServerOverride,
                         testing::Values(L"http://mirror/x/", L"http://mirror/x", L"  http://mirror/ ",
                                         L"not an address", L"\u00e9", L"",
                                         L"http://mirror/" + std::wstring(3000, L'x')));

// Proves: No key, no value => the maker's server, nothing is logged
// Proves: The value is not text, or reading it fails => the maker's server, nothing is logged, the key is closed
TEST(ServerFolder, IsTheMakersWithoutAReadableText)
{
    const MachineRegistry registry;
    ExpectTheMakersServerAndNoLine();
    registry.SetString(kKey, L"Other", L"http://mirror/");
    ExpectTheMakersServerAndNoLine();
    registry.SetValue(kKey, L"DWXServerFolder", REG_BINARY, {'h', 0, 0, 0});
    ExpectTheMakersServerAndNoLine();
    registry.SetString(kKey, L"DWXServerFolder", L"http://mirror/");
    SUBSTITUTE(RegGetValueW) get([](auto...) { return ERROR_ACCESS_DENIED; });
    ExpectTheMakersServerAndNoLine();
}

// Own process: the log must not have begun.
// Proves: The line cannot be logged => the maker's server
TEST(ServerFolderWithoutALog, IsTheMakers)
{
    const MachineRegistry registry;
    registry.SetString(kKey, L"DWXServerFolder", L"http://mirror/");
    SUBSTITUTE(GetFileAttributesW) attributes([](const wchar_t*) { return INVALID_FILE_ATTRIBUTES; });
    SUBSTITUTE(CreateDirectoryW) create([](auto...) { return FailWith(ERROR_ACCESS_DENIED); });
    EXPECT_EQ(GetServerFolder(), L"https://download.tavik.example/drivers/installer/vlt/");
}
}  // namespace
}  // namespace repair
