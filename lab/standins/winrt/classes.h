// The objects of the component, what its host provides, and strings.
#pragma once
#include <string>
#include <vector>

#include "abi.h"
#include "script.h"

namespace lab
{
// Answers RoGetActivationFactory as the script says.
HRESULT GetFactory(const std::wstring& className, abi::IActivationFactory** factory);

abi::IActivationFactory* NewPackageManagerFactory();
abi::IActivationFactory* NewStoreContextFactory();
abi::IPackageIterable* NewPackageList(std::vector<PackageScript> packages);
abi::IDeploymentOperation* NewRemoval(const PackageScript& package, UINT32 options);

// Puts an error object with the texts on this thread, where the caller finds it with GetErrorInfo.
void PutErrorObject(const Answer& failure);

// The host provides these and the first two of record.h: the DLL of a lab machine from files, an in-process test from
// memory.
const Script& TheScript();
std::vector<PackageScript> InstalledPackages();
void RemovePackage(const PackageScript& package);
void AddPackage(const std::wstring& name, abi::PackageVersion version);

inline HSTRING NewString(const std::wstring& text)
{
    HSTRING string = nullptr;
    WindowsCreateString(text.c_str(), static_cast<UINT32>(text.size()), &string);
    return string;
}

inline std::wstring TextOf(HSTRING string)
{
    UINT32 length = 0;
    const wchar_t* const text = WindowsGetStringRawBuffer(string, &length);
    return std::wstring(text, length);
}
}  // namespace lab
