#include "app/edition.h"

#include <cwchar>

#include "base/log.h"
#include "install/msi_products.h"
#include "store/store_packages.h"

namespace repair
{
namespace
{
constexpr size_t kReleasePrefixCharacters = 5;

bool EqualNoCase(const std::wstring& a, const std::wstring& b)
{
    return _wcsicmp(a.c_str(), b.c_str()) == 0;
}
}  // namespace

Edition FindEdition(const std::wstring& desktopVersion)
{
    if (IsDesktopEditionInstalled())
    {
        return {true, false, desktopVersion};
    }
    LogLine(L"User does not desktop VLT installed.");
    const PackageVersion version = QueryStorePackageVersion();
    return {version != PackageVersion{}, true,
            ReleasePrefix(std::to_wstring(version.Minor) + L"." + std::to_wstring(version.Build))};
}

std::wstring ReleasePrefix(const std::wstring& release)
{
    return release.substr(0, kReleasePrefixCharacters);
}

bool IsSameRelease(const std::wstring& releaseBase, const std::wstring& installedVersion)
{
    const std::wstring releasePrefix = ReleasePrefix(releaseBase);
    return EqualNoCase(releaseBase, installedVersion) || EqualNoCase(releasePrefix, installedVersion) ||
           EqualNoCase(releasePrefix, ReleasePrefix(installedVersion));
}
}  // namespace repair
