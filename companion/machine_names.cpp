#include "companion/machine_names.h"

#include <string>

#include <windows.h>

#include "base/registry.h"
#include "companion/log_files.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
constexpr wchar_t kProfiles[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
constexpr wchar_t kProfilePath[] = L"ProfileImagePath";
constexpr DWORD kLongestKey = 256;  // characters, with the terminator

std::string Environment(const wchar_t* name)
{
    std::wstring text(GetEnvironmentVariableW(name, nullptr, 0), L'\0');
    text.resize(GetEnvironmentVariableW(name, text.data(), static_cast<DWORD>(text.size())));
    return ToUtf8(text);
}

std::string ComputerName(COMPUTER_NAME_FORMAT format)
{
    DWORD size = 0;
    GetComputerNameExW(format, nullptr, &size);
    std::wstring text(size, L'\0');
    if (size == 0 || GetComputerNameExW(format, text.data(), &size) == 0)
    {
        return {};
    }
    text.resize(size);
    return ToUtf8(text);
}

// Each user who has signed in has a profile folder, usually of the same name.
void AddProfiles(Redactor& redactor)
{
    try
    {
        const RegistryKey profiles = OpenMachineKey(kProfiles);
        wchar_t name[kLongestKey] = {};
        for (DWORD i = 0; RegEnumKeyW(profiles.Get(), i, name, kLongestKey) == ERROR_SUCCESS; ++i)
        {
            try
            {
                redactor.AddProfile(ToUtf8(FileNameOf(ReadRegistryString(profiles, name, kProfilePath))));
            }
            catch (const RegKeyError&)  // a key without a path is no profile
            {
                continue;
            }
        }
    }
    catch (const RegKeyError&)
    {
        return;
    }
}
}  // namespace

void AddMachineNames(Redactor& redactor)
{
    for (const COMPUTER_NAME_FORMAT format :
         {ComputerNameNetBIOS, ComputerNameDnsHostname, ComputerNameDnsFullyQualified, ComputerNamePhysicalNetBIOS,
          ComputerNamePhysicalDnsHostname, ComputerNamePhysicalDnsFullyQualified})
    {
        redactor.Add(NameKind::kMachine, ComputerName(format));
    }
    redactor.Add(NameKind::kMachine, Environment(L"COMPUTERNAME"));
    redactor.Add(NameKind::kDomain, ComputerName(ComputerNameDnsDomain));
    redactor.Add(NameKind::kDomain, Environment(L"USERDNSDOMAIN"));
    redactor.Add(NameKind::kDomain, Environment(L"USERDOMAIN"));
    redactor.Add(NameKind::kUser, Environment(L"USERNAME"));
    AddProfiles(redactor);
}
}  // namespace repair
