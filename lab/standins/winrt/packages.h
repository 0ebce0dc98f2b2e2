// Package objects, and what FindPackages returns.
#pragma once
#include <vector>

#include "script.h"

namespace lab
{
abi::IPackageIterable* NewPackageList(std::vector<PackageScript> packages);
}  // namespace lab
