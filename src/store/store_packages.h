// The application's Store packages: which version is installed, and their removal.
#pragma once

#include <string>

#include "store/winrt_abi.h"

namespace repair
{
using PackageVersion = abi::PackageVersion;

// True when a package's full name contains one of the application's package names, in any letter case.
bool MatchesStorePackage(const std::wstring& fullName);

// The highest version among the application's usable packages of all users; all zero when there is none or when it
// cannot be found out. Logs every package found and every failure. Never throws.
PackageVersion QueryStorePackageVersion() noexcept;

// The same, but lets the errors of the enumeration itself out: WinrtError or a standard exception.
PackageVersion FindStorePackageVersion();

// Removes the application's packages for all users, one after the other, disabled ones too. Best effort: outcomes are
// only logged. Never throws.
void RemoveStorePackages() noexcept;

// The same, but lets the errors of the enumeration itself out: WinrtError or a standard exception.
void RemoveMatchingStorePackages();
}  // namespace repair
