#include "inventory/installed_version.h"

#include "base/registry.h"
#include "inventory/constants.h"

namespace repair
{
namespace
{
std::wstring ReadApplicationValue(const wchar_t* name) noexcept
{
    try
    {
        return ReadMachineString(kApplicationKey, name);
    }
    catch (...)  // by design every failure means: not known
    {
        return {};
    }
}
}  // namespace

std::wstring GetInstalledAppVersion() noexcept
{
    return ReadApplicationValue(kApplicationVersionValue);
}

std::wstring GetInstalledAppDriverVersion() noexcept
{
    return ReadApplicationValue(kApplicationDriverVersionValue);
}
}  // namespace repair
