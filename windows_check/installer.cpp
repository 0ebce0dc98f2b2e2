// Windows Installer's register of products. Nothing is installed or removed.
#include <windows.h>
#include <msi.h>

#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr wchar_t kNobody[] = L"{7B1E0C52-90A4-4F6B-8C3D-5D1A2E7F4B96}";  // made up; nobody's

Seen NoRelated()
{
    wchar_t product[39] = {};
    return Saw(Number(MsiEnumRelatedProductsW(kNobody, 0, 0, product)));
}

Seen BadCode()
{
    wchar_t product[39] = {};
    return Saw(Number(MsiEnumRelatedProductsW(L"none", 0, 0, product)));
}

Seen UnknownProduct()
{
    wchar_t package[MAX_PATH] = {};
    DWORD length = MAX_PATH;
    return Saw(Number(MsiGetProductInfoW(kNobody, INSTALLPROPERTY_LOCALPACKAGE, package, &length)));
}

// The tool's products are not here; any other one has a package in the cache as well.
Seen LocalPackage()
{
    std::wstring refused;
    for (DWORD index = 0;; ++index)
    {
        wchar_t product[39] = {};
        if (MsiEnumProductsW(index, product) != ERROR_SUCCESS)
        {
            return refused.empty() ? DoesNotApply(L"nothing was installed by Windows Installer here") : Saw(refused);
        }
        wchar_t package[MAX_PATH] = {};
        DWORD length = MAX_PATH;
        const UINT result = MsiGetProductInfoW(product, INSTALLPROPERTY_LOCALPACKAGE, package, &length);
        if (result == ERROR_SUCCESS && length > 0)
        {
            const bool isThere = GetFileAttributesW(package) != INVALID_FILE_ATTRIBUTES;
            const bool isCounted = length == std::wcslen(package);
            return Saw((isThere ? std::wstring(L"a file") : L"no file") +
                           (isCounted ? L", length without the terminator" : L", another length"),
                       package);
        }
        refused = Number(result) + L", " + Number(length) + L" characters";
    }
}

Seen SmallBuffer()
{
    wchar_t product[39] = {};
    if (MsiEnumProductsW(0, product) != ERROR_SUCCESS)
    {
        return DoesNotApply(L"nothing was installed by Windows Installer here");
    }
    wchar_t value[2] = {};
    DWORD length = 1;
    const UINT result = MsiGetProductInfoW(product, INSTALLPROPERTY_VERSIONSTRING, value, &length);
    return Saw(Number(result));
}

Seen NoInterface()
{
    // Of this process only, and put back.
    const INSTALLUILEVEL before = MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    const INSTALLUILEVEL then = MsiSetInternalUI(before, nullptr);
    return Saw(then == INSTALLUILEVEL_NONE ? L"none" : Number(then));
}

Seen ServiceIsThere()
{
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = OpenServiceW(manager, L"msiserver", SERVICE_QUERY_CONFIG);
    const DWORD error = GetLastError();
    BYTE buffer[8192] = {};
    auto* const configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
    DWORD needed = 0;
    std::wstring seen = service == nullptr ? L"no: " + Number(error) : L"not asked";
    if (service != nullptr && QueryServiceConfigW(service, configuration, sizeof(buffer), &needed) != 0)
    {
        seen = configuration->dwStartType == SERVICE_DISABLED ? L"disabled" : L"can be started";
    }
    if (service != nullptr)
    {
        CloseServiceHandle(service);
    }
    if (manager != nullptr)
    {
        CloseServiceHandle(manager);
    }
    return Saw(seen);
}
}  // namespace

std::vector<Check> InstallerChecks()
{
    return {
        {"installer.no_related", NoRelated, 60'000},
        {"installer.bad_code", BadCode, 60'000},
        {"installer.unknown_product", UnknownProduct, 60'000},
        {"installer.local_package", LocalPackage, 60'000},
        {"installer.small_buffer", SmallBuffer, 60'000},
        {"installer.no_interface", NoInterface, 60'000},
        {"installer.service", ServiceIsThere},
    };
}
}  // namespace windows_check
