// Windows Installer's register of products. Nothing is installed or removed.
#include <windows.h>
#include <msi.h>

#include "windows_check/check.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr wchar_t kUnknown[] = L"{7B1E0C52-90A4-4F6B-8C3D-5D1A2E7F4B96}";  // random, so no product has it

FACT(installer, no_related)
{
    wchar_t product[39] = {};
    return Saw(Number(MsiEnumRelatedProductsW(kUnknown, 0, 0, product)));
}

FACT(installer, unknown_product)
{
    wchar_t package[MAX_PATH] = {};
    DWORD length = MAX_PATH;
    return Saw(Number(MsiGetProductInfoW(kUnknown, INSTALLPROPERTY_LOCALPACKAGE, package, &length)));
}

// The tool's products are not here; any other one has a package in the cache as well.
FACT(installer, local_package)
{
    std::wstring refused;
    for (DWORD index = 0;; ++index)
    {
        wchar_t product[39] = {};
        if (MsiEnumProductsW(index, product) != ERROR_SUCCESS)
        {
            Need(!refused.empty(), L"nothing was installed by Windows Installer here");
            return Saw(refused);
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

FACT(installer, no_interface)
{
    // Of this process only, and put back.
    const INSTALLUILEVEL before = MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    const INSTALLUILEVEL then = MsiSetInternalUI(before, nullptr);
    return Saw(then == INSTALLUILEVEL_NONE ? L"none" : std::to_wstring(then));
}

FACT(installer, service)
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
}  // namespace windows_check
