// Which release the installed desktop application belongs to.
#pragma once

#include <string>

namespace repair
{
// The application's own version. Empty when it is not known. Never throws, logs nothing.
std::wstring GetInstalledAppVersion() noexcept;

// The driver version that the application was installed with. Empty when it is not known. Never throws, logs nothing.
std::wstring GetInstalledAppDriverVersion() noexcept;
}  // namespace repair
