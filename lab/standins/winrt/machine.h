// The packages that the machine has now; survives the process in C:\lab\standins\store-state.txt.
#pragma once
#include <vector>

#include "script.h"

namespace lab
{
// Read when the first class is activated.
const Script& TheScript();

std::vector<PackageScript> InstalledPackages();
void RemovePackage(const PackageScript& package);
void AddPackage(const std::wstring& name, abi::PackageVersion version);
}  // namespace lab
