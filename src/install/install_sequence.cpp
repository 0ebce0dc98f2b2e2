#include "install/install_sequence.h"

#include <exception>
#include <iterator>
#include <list>
#include <string>
#include <utility>

#include <windows.h>
#include <msi.h>
#include <shlobj.h>

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "install/component_stop.h"
#include "install/constants.h"
#include "install/msi_products.h"
#include "install/process_launcher.h"
#include "install/secure_directory.h"

namespace repair
{
namespace
{
constexpr std::int32_t kMainPackageMissing = 2;

std::wstring ExtractionFolder()
{
    wchar_t temporaryFolder[kTemporaryPathCharacters] = {};
    GetTempPathW(static_cast<DWORD>(std::size(temporaryFolder)), temporaryFolder);  // ends with a backslash
    return std::wstring(temporaryFolder) + kExtractionFolder;
}

void Extract(HeldInstaller installer, const std::wstring& folder)
{
    // Release an installer inside the old folder, so that it can be removed with the folder.
    if (const FileHandle old = HoldFolder(folder);
        old && IsBelow(installer.file.Get(), old.Get(), FILE_NAME_NORMALIZED))
    {
        installer.file.Close();
    }
    CreateSecureDirectory(folder, installer.folder);  // by design the sequence goes on after a failure
    if (!installer.file)
    {
        installer.file = HoldFile(installer.path);  // if that fails, the start logs the reason
    }
    // No quotes: the installer takes all text after "/D=" as the folder, blanks included.
    LaunchProcess(installer.path, kExtractionParameters + folder, INFINITE, folder.c_str());
}

void RemoveProducts(const wchar_t* family, const std::list<std::wstring>& packages)
{
    for (const std::wstring& package : packages)
    {
        LogLine(L"Uninstalling installed %s %s", family, package.c_str());
        const UINT result = MsiInstallProductW(package.c_str(), kRemovalProperties);
        LogLine(L"\tResult = %d", result);  // a failure does not stop the other removals
    }
}

std::int32_t InstallPackage(const std::wstring& package, const std::wstring& customDir)
{
    LogLine(L"Installing %s", package.c_str());
    const std::int32_t result = InstallMsiPackage(package, customDir);
    LogLine(L"\tResult = %d", result);
    return result;
}
}  // namespace

std::int32_t RunInstallSequence(HeldInstaller installer, bool installAllComponents)
{
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    const std::wstring extractDir = ExtractionFolder();
    Extract(std::move(installer), extractDir);

    const std::wstring mainPackage = extractDir + kMainPackage;
    const std::wstring dvrPackage = extractDir + kDvrPackage;
    const std::wstring pxlPackage = extractDir + kPxlPackage;
    if (!Exists(mainPackage))
    {
        LogLine(L"Unable to find %s.", mainPackage.c_str());
        return kMainPackageMissing;
    }
    const std::list<std::wstring> haldenProducts = FindRelatedProductPackages(kHaldenUpgradeCode);
    const std::list<std::wstring> dvrProducts = FindRelatedProductPackages(kDvrUpgradeCode);
    const std::list<std::wstring> pxlProducts = FindRelatedProductPackages(kPxlUpgradeCode);
    const std::wstring customDir = GetCustomInstallDir();  // read before the removal deletes the registered folder

    StopRunningComponents();
    RemoveProducts(L"Halden", haldenProducts);
    RemoveProducts(L"DVR", dvrProducts);
    RemoveProducts(L"PXL", pxlProducts);

    const std::int32_t result = InstallPackage(mainPackage, customDir);
    if (!dvrProducts.empty() || installAllComponents)
    {
        InstallPackage(dvrPackage, customDir);
    }
    if (!pxlProducts.empty() || installAllComponents)
    {
        InstallPackage(pxlPackage, customDir);
    }
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);  // icons and file types may be new
    return result;
}

std::int32_t InstallWithExceptionGuard(HeldInstaller installer)
{
    try
    {
        return RunInstallSequence(std::move(installer), false);
    }
    catch (const std::exception& error)
    {
        LogLine(L"\tException occured during installation. %s", ExceptionText(error).c_str());
        return -1;
    }
}
}  // namespace repair
