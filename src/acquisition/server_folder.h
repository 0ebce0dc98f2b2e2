// Where the installer of a release is downloaded from.
#pragma once

#include <string>

namespace repair
{
// Returns the folder set in the registry exactly as stored, or the maker's own server if none can be read.
// Never throws; logs only an override.
std::wstring GetServerFolder() noexcept;
}  // namespace repair
