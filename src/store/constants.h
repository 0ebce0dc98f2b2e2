// Names under which the Store knows the application.
#pragma once

#include <array>
#include <string>

namespace repair
{
// Package names without version, architecture and publisher id; full names contain one of them.
inline const std::array<std::wstring, 2> StorePackageNames = {
    L"TavikSystemsInc-2.8F31D07A2B6E4",
    L"TavikSystemsInc-2.TavikCorvelSoftware",
};

// The application's product id in the Store.
inline constexpr wchar_t kStoreProductId[] = L"9PQ4XK7ZT2MV";
}  // namespace repair
