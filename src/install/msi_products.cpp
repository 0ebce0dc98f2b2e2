#include "install/msi_products.h"

#include <filesystem>
#include <iterator>

#include <windows.h>
#include <msi.h>
#include <shlobj.h>

#include "base/files.h"
#include "base/log.h"
#include "base/registry.h"
#include "install/constants.h"

namespace repair
{
std::list<std::wstring> FindRelatedProductPackages(std::wstring upgradeCode)
{
    std::list<std::wstring> packages;
    wchar_t productCode[kProductCodeCharacters] = {};
    // By design only the end of the list ends the loop: after any other error the previous product code is used again.
    for (DWORD index = 0; MsiEnumRelatedProductsW(upgradeCode.c_str(), 0, index, productCode) != ERROR_NO_MORE_ITEMS;
         ++index)
    {
        wchar_t package[kPathCharacters] = {};
        DWORD length = static_cast<DWORD>(std::size(package));
        if (MsiGetProductInfoW(productCode, INSTALLPROPERTY_LOCALPACKAGE, package, &length) == ERROR_SUCCESS)
        {
            packages.emplace_back(package);
        }
    }
    return packages;
}

bool IsDesktopEditionInstalled()
{
    return !FindRelatedProductPackages(kHaldenUpgradeCode).empty();
}

std::int32_t InstallMsiPackage(std::wstring packagePath, std::wstring installDir)
{
    std::wstring properties = kInstallProperties;
    if (!installDir.empty())
    {
        LogLine(L"Using custom install directory %s", installDir.c_str());
        properties += L" INSTALLDIR=\"" + installDir + L"\"";
    }
    const UINT result = MsiInstallProductW(packagePath.c_str(), properties.c_str());
    switch (result)
    {
        case ERROR_SUCCESS_REBOOT_INITIATED:
        case ERROR_SUCCESS_REBOOT_REQUIRED:
        case ERROR_SUCCESS_RESTART_REQUIRED:
            LogLine(L"System reboot may be required for %s.", packagePath.c_str());
            return 0;
        default:
            return static_cast<std::int32_t>(result);
    }
}

std::wstring GetCustomInstallDir() noexcept
{
    try
    {
        const std::wstring registered = ReadMachineString(kApplicationInstallKey, kInstallDirValue);
        wchar_t programFiles[kPathCharacters] = {};
        SHGetSpecialFolderPathW(nullptr, programFiles, CSIDL_PROGRAM_FILES, FALSE);
        const std::wstring defaultFolder = (std::filesystem::path(programFiles) / kDefaultInstallFolder).wstring();
        if (!Exists(defaultFolder))
        {
            return registered;
        }
        return SameObject(registered, defaultFolder) ? std::wstring() : registered;
    }
    catch (...)  // nothing registered, or the registered folder does not exist any more
    {
        return {};
    }
}
}  // namespace repair
