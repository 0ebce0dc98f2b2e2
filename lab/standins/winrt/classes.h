// The classes that the component offers.
#pragma once
#include "abi.h"

namespace lab
{
inline constexpr const wchar_t* kPackageManagerClass = L"Windows.Management.Deployment.PackageManager";
inline constexpr const wchar_t* kStoreContextClass = L"Windows.Services.Store.StoreContext";

abi::IActivationFactory* NewPackageManagerFactory();
abi::IActivationFactory* NewStoreContextFactory();
}  // namespace lab
