// Where the installer of a release is downloaded from.
#pragma once

#include <string>

namespace repair
{
// The folder set in the registry, exactly as stored, or the maker's own server when none can be read.
// Failures stay inside; only an override is logged.
std::wstring GetServerFolder() noexcept;
}  // namespace repair
