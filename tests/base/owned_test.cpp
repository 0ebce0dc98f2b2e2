#include "base/owned.h"
#include "base/handles.h"
#include "base/registry.h"
#include "support/test.h"

IMPORTED(CloseHandle, RegCloseKey)

namespace repair
{
namespace
{
std::vector<int> numbersClosed;  // in the order of closing

struct NumberKind
{
    using Handle = int;
    static Handle None() noexcept { return -1; }
    static void Close(Handle number) noexcept { numbersClosed.push_back(number); }
};
using Number = Owned<NumberKind>;

// Proves: An owner of a handle is closed early, moved, or never owned one => the handle is closed once, or not at all
TEST(OwnedHandle, IsClosedOnceInTheReverseOrderOfTheDeclaration)
{
    numbersClosed.clear();
    {
        const Number outer(7);
        const Number inner(0);  // a valid handle here: "none" is another value
        Number early(9);
        EXPECT_TRUE(inner && outer);
        EXPECT_EQ(outer.Get(), 7);
        early.Close();
        EXPECT_FALSE(static_cast<bool>(early));
        early.Close();
        EXPECT_EQ(numbersClosed, std::vector<int>{9});
    }
    EXPECT_EQ(numbersClosed, (std::vector<int>{9, 0, 7}));
    numbersClosed.clear();
    {
        Number owner;
        const Number none(-1);
        EXPECT_FALSE(owner || none);
        owner.Close();
        Number released(7);
        EXPECT_EQ(released.Release(), 7);
        EXPECT_EQ(released.Get(), -1);
    }
    EXPECT_TRUE(numbersClosed.empty());
}

TEST(OwnedHandle, MovingPassesTheHandleOnAndClosesTheOneThere)
{
    numbersClosed.clear();
    {
        Number first(1);
        Number second(std::move(first));
        EXPECT_EQ(second.Get(), 1);
        EXPECT_TRUE(numbersClosed.empty());
        Number third(3);
        third = std::move(second);
        EXPECT_EQ(third.Get(), 1);
        EXPECT_EQ(numbersClosed, std::vector<int>{3});
        Number& same = third;
        third = std::move(same);
        EXPECT_EQ(third.Get(), 1);
        EXPECT_EQ(numbersClosed, std::vector<int>{3});
    }
    EXPECT_EQ(numbersClosed, (std::vector<int>{3, 1}));
}

TEST(OwnedKinds, EachClosesItsOwnWayAndKnowsItsOwnNone)
{
    std::vector<HANDLE> handles;
    std::vector<HKEY> keys;
    SUBSTITUTE(CloseHandle) closeHandle([&](HANDLE handle) { return handles.push_back(handle), TRUE; });
    SUBSTITUTE(RegCloseKey) closeKey([&](HKEY key) { return keys.push_back(key), ERROR_SUCCESS; });
    const auto number = [](int value) { return reinterpret_cast<HANDLE>(static_cast<INT_PTR>(value)); };
    {
        const FileHandle noFile(INVALID_HANDLE_VALUE);
        const FileHandle file(number(4));
        const EventHandle noEvent(nullptr);
        const EventHandle event(number(8));
        const RegistryKey noKey(nullptr);
        const RegistryKey key(reinterpret_cast<HKEY>(number(12)));
    }
    EXPECT_EQ(handles, (std::vector<HANDLE>{number(8), number(4)}));
    EXPECT_EQ(keys, std::vector<HKEY>{reinterpret_cast<HKEY>(number(12))});
}
}  // namespace
}  // namespace repair
