// Windows Installer's register of products. Nothing is installed or removed.
#include <windows.h>
#include <msi.h>

#include "windows_check/check.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr wchar_t kUnknown[] = L"{7B1E0C52-90A4-4F6B-8C3D-5D1A2E7F4B96}";  // random, so no product has it

FACT(installer, no_related)
{
    wchar_t product[39] = {};
    return Number(MsiEnumRelatedProductsW(kUnknown, 0, 0, product));
}

std::wstring LocalPackage(const wchar_t* product, std::wstring& path)
{
    wchar_t package[MAX_PATH] = {};
    DWORD length = MAX_PATH;
    const UINT result = MsiGetProductInfoW(product, INSTALLPROPERTY_LOCALPACKAGE, package, &length);
    path = package;
    if (result != ERROR_SUCCESS)
    {
        return Number(result);
    }
    return std::wstring(IsThere(path) ? L"a file" : L"no file") +
           (length == path.size() ? L", length without the terminator" : L", another length");
}

FACT(installer, unknown_product)
{
    std::wstring path;
    return LocalPackage(kUnknown, path);
}

// The tool's products may not be installed, so this takes the first product that has a package.
FACT(installer, local_package)
{
    std::wstring seen;
    std::wstring path;
    wchar_t product[39] = {};
    for (DWORD index = 0; path.empty() && MsiEnumProductsW(index, product) == ERROR_SUCCESS; ++index)
    {
        seen = LocalPackage(product, path);
    }
    Need(!seen.empty(), L"nothing was installed by Windows Installer here");
    return {seen, path};
}

FACT(installer, no_interface)
{
    // Of this process only, and put back.
    const INSTALLUILEVEL before = MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    const INSTALLUILEVEL then = MsiSetInternalUI(before, nullptr);
    return then == INSTALLUILEVEL_NONE ? L"none" : std::to_wstring(then);
}
}  // namespace
}  // namespace windows_check
