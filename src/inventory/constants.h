// Ids, registry places and buffer sizes of the driver inventory.
#pragma once

#include <windows.h>

namespace repair
{
// Setup class of display adapters.
inline constexpr GUID kDisplayClass = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

// PCI vendor ids of the maker, as they appear in a device instance id.
inline constexpr wchar_t kVendorId[] = L"VEN_1E7D";
inline constexpr wchar_t kSecondVendorId[] = L"VEN_1E7C";

inline constexpr wchar_t kDriverKeys[] = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
inline constexpr wchar_t kReleaseVersionValue[] = L"ReleaseVersion";

// Part of the description of the generic drivers that come with Windows.
inline constexpr wchar_t kGenericDriverMaker[] = L"Microsoft";

inline constexpr wchar_t kApplicationKey[] = L"SOFTWARE\\Tavik\\HL";
inline constexpr wchar_t kApplicationVersionValue[] = L"HLVersion";
inline constexpr wchar_t kApplicationDriverVersionValue[] = L"DriverVersion";

inline constexpr size_t kInstanceIdCharacters = 520;
inline constexpr size_t kInfLineCharacters = 2064;
}  // namespace repair
