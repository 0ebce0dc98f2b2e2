// The installed version of the application's Store packages, and their removal.
#pragma once

#include <string>

#include "store/winrt_abi.h"

namespace repair
{
using PackageVersion = abi::PackageVersion;

// True when a package's full name contains one of the application's package names, in any letter case.
bool MatchesStorePackage(const std::wstring& fullName);

// Returns the highest version among the application's usable packages of all users; all zero if there is none or the
// query fails. Logs every package found and every failure. Never throws.
PackageVersion QueryStorePackageVersion() noexcept;

// The same, but throws the errors of the enumeration itself: WinrtError or a standard exception.
PackageVersion FindStorePackageVersion();

// Removes the application's packages for all users, one after the other, disabled ones too. Results are only logged.
// Never throws.
void RemoveStorePackages() noexcept;

// The same, but throws the errors of the enumeration itself: WinrtError or a standard exception.
void RemoveMatchingStorePackages();
}  // namespace repair
