// Addresses, names and limits of finding or downloading the installer.
#pragma once

#include <windows.h>

namespace repair
{
// The maker's addresses are set when the build is configured (TAVIK_DOWNLOAD_HOST, TAVIK_SUPPORT_ADDRESS).
inline constexpr wchar_t kDefaultServerFolder[] = L"https://" TAVIK_DOWNLOAD_HOST L"/drivers/installer/vlt/";
inline constexpr wchar_t kReferrer[] = TAVIK_SUPPORT_ADDRESS;

inline constexpr wchar_t kServerKey[] = L"SOFTWARE\\Tavik";
inline constexpr wchar_t kServerFolderValue[] = L"DWXServerFolder";

// By design the file on the server is named ".txt" although it is the installer program.
inline constexpr wchar_t kRemoteFile[] = L"/dwx2_install.txt";
inline constexpr wchar_t kDownloadFolder[] = L"Tavik_VLTInstallerDownload";
inline constexpr int kFolderAttempts = 3;  // if another program replaces the folder or prevents holding it
inline constexpr DWORD kFolderPauseMs = 500;
inline constexpr wchar_t kInstallerFile[] = L"dwx2_install.exe";
inline constexpr wchar_t kTemporaryFile[] = L"dwx2_install.exe.tmp";
inline constexpr wchar_t kUserAgent[] = L"Tavik Marlin Install Manager";
inline constexpr wchar_t kAcceptType[] = L"Accept: */*";  // by design the type contains the whole header text

inline constexpr DWORD kReceiveTimeoutMs = 90'000;
inline constexpr DWORD kSendTimeoutMs = 30'000;
inline constexpr DWORD kConnectTimeoutMs = 30'000;
inline constexpr DWORD kReceiveBufferBytes = 1'048'576;
inline constexpr DWORD kUrlPartCharacters = 260;  // longest host name and longest path, terminator included
inline constexpr DWORD kTempPathCharacters = MAX_PATH + 1;

// Name of the installer in a driver package.
inline constexpr wchar_t kLocalInstallerFile[] = L"DWX2_Install.exe";
}  // namespace repair
