// The release that the installed desktop application belongs to.
#pragma once

#include <string>

namespace repair
{
// Returns the application's own version, or an empty text if it is not known. Never throws, logs nothing.
std::wstring GetInstalledAppVersion() noexcept;

// Returns the driver version that the application was installed with, or an empty text. Never throws, logs nothing.
std::wstring GetInstalledAppDriverVersion() noexcept;
}  // namespace repair
