// The product's declaration of the Windows Runtime against the lab's, which was written independently. The slots of the
// methods are compared by every test that uses the fake.
#include <gtest/gtest.h>

#include "lab/standins/winrt/abi.h"
#include "store/winrt_abi.h"

namespace repair
{
namespace
{
template <typename Product, typename Lab>
void ExpectSame()
{
    EXPECT_TRUE(Product::kIid == Lab::kIid) << testing::PrintToString(Lab::kName);
}

TEST(WinrtAbi, IdentifiersAreThoseOfTheIndependentDeclaration)
{
    ExpectSame<abi::IInspectable, winrt_abi::IInspectable>();
    ExpectSame<abi::IActivationFactory, winrt_abi::IActivationFactory>();
    ExpectSame<abi::IAsyncInfo, winrt_abi::IAsyncInfo>();
    ExpectSame<abi::IRestrictedErrorInfo, winrt_abi::IRestrictedErrorInfo>();
    ExpectSame<abi::IStringIterator, winrt_abi::IStringIterator>();
    ExpectSame<abi::IStringIterable, winrt_abi::IStringIterable>();
    ExpectSame<abi::IStringVectorView, winrt_abi::IStringVectorView>();
    ExpectSame<abi::IPackageIterator, winrt_abi::IPackageIterator>();
    ExpectSame<abi::IPackageIterable, winrt_abi::IPackageIterable>();
    ExpectSame<abi::IAsyncOperation<abi::Deployment>, winrt_abi::IDeploymentOperation>();
    ExpectSame<abi::IAsyncOperation<abi::StoreUpdate>, winrt_abi::IStoreOperation>();
    ExpectSame<abi::IPackageId, winrt_abi::IPackageId>();
    ExpectSame<abi::IPackage, winrt_abi::IPackage>();
    ExpectSame<abi::IPackageStatus, winrt_abi::IPackageStatus>();
    ExpectSame<abi::IPackage3, winrt_abi::IPackage3>();
    ExpectSame<abi::IDeploymentResult, winrt_abi::IDeploymentResult>();
    ExpectSame<abi::IPackageManager, winrt_abi::IPackageManager>();
    ExpectSame<abi::IPackageManager2, winrt_abi::IPackageManager2>();
    ExpectSame<abi::IStorePackageUpdateResult, winrt_abi::IStorePackageUpdateResult>();
    ExpectSame<abi::IStoreContext, winrt_abi::IStoreContext>();
    ExpectSame<abi::IStoreContextStatics, winrt_abi::IStoreContextStatics>();
    ExpectSame<abi::IStoreContext3, winrt_abi::IStoreContext3>();
    ExpectSame<abi::IInitializeWithWindow, winrt_abi::IInitializeWithWindow>();
}
}  // namespace
}  // namespace repair
