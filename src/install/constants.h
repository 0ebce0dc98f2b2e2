// Names, property lines and time limits of stopping, removing and installing the desktop edition.
#pragma once

#include <string>

#include <windows.h>

namespace repair
{
// Upgrade codes of the three component families. The first one is also the mark of an installed desktop edition.
inline const std::wstring kHaldenUpgradeCode = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";
inline const std::wstring kDvrUpgradeCode = L"{8E41A6D2-0C9B-4F73-A215-6B7D3E9F0A58}";
inline const std::wstring kPxlUpgradeCode = L"{B07F3C95-4D28-4E6A-8B31-9F5A2C7E1D04}";

// Where the application's installer records its folders.
inline constexpr wchar_t kApplicationInstallKey[] = L"SOFTWARE\\Orrel Technologies\\Install\\Halden\\";
inline constexpr wchar_t kLocationValue[] = L"Location";
inline constexpr wchar_t kInstallDirValue[] = L"InstallDir";
inline constexpr wchar_t kDefaultInstallFolder[] = L"Tavik";  // below the Program Files folder

inline constexpr wchar_t kExtractionFolder[] =
    L"Tavik_VLTInstallerDownload\\LPInstaller";  // below the temporary folder
inline constexpr wchar_t kExtractionParameters[] = L"/NCRC /S -EXTRACTONLY=YES /D=";
inline constexpr wchar_t kMainPackage[] = L"\\HL\\halden\\halden64\\dwx-next64.msi";
inline constexpr wchar_t kDvrPackage[] = L"\\HL\\tavikdvr\\tavikdvr64\\tavikdvr64.msi";
inline constexpr wchar_t kPxlPackage[] = L"\\HL\\pxl64\\PXL64.msi";
inline constexpr wchar_t kMarkerFile[] = L"~.tmp";
inline constexpr int kPreparations = 2;  // attempts to prepare the extraction folder, if it is not as it was made

inline constexpr wchar_t kInstallProperties[] = L"REBOOT=ReallySuppress MSIFASTINSTALL=3 LAUNCHED_FROM_MIM=\"1\"";
inline constexpr wchar_t kRemovalProperties[] =
    L"REMOVE=ALL REBOOT=ReallySuppress MSIFASTINSTALL=3 MSIRESTARTMANAGERCONTROL=Disable UPGRADINGPRODUCTCODE=1";

inline constexpr wchar_t kCommandTool[] = L"\\hlcmd.exe";  // appended to the recorded location
inline constexpr wchar_t kCommandToolExit[] = L"exit";
inline constexpr wchar_t kKillProgram[] = L"taskkill.exe";
inline constexpr DWORD kProgramWaitMs = 30'000;

inline constexpr size_t kProductCodeCharacters = 39;  // a GUID in braces and the terminator
inline constexpr size_t kPathCharacters = MAX_PATH;
inline constexpr size_t kTemporaryPathCharacters = MAX_PATH + 1;
}  // namespace repair
