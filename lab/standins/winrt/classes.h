// The objects of the component, the packages that the machine has now, and strings.
#pragma once
#include <string>
#include <vector>

#include "abi.h"
#include "script.h"

namespace lab
{
abi::IActivationFactory* NewPackageManagerFactory();
abi::IActivationFactory* NewStoreContextFactory();
abi::IPackageIterable* NewPackageList(std::vector<PackageScript> packages);

// Puts an error object with the texts on this thread, where the caller finds it with GetErrorInfo.
void PutErrorObject(const Answer& failure);

// Read when the first class is activated.
const Script& TheScript();

// The packages outlive the process in C:\lab\standins\store-state.txt.
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
