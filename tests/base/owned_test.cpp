#include <windows.h>

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "base/handles.h"
#include "base/owned.h"
#include "base/registry.h"
#include "support/substitute.h"

IMPORTED(CloseHandle)
IMPORTED(RegCloseKey)

namespace repair
{
namespace
{
std::vector<int> closed;  // in the order of closing

struct NumberKind
{
    using Handle = int;
    static Handle None() noexcept { return -1; }
    static void Close(Handle number) noexcept { closed.push_back(number); }
};
using Number = Owned<NumberKind>;

class OwnedHandle : public testing::Test
{
protected:
    void SetUp() override { closed.clear(); }
};

// Proves: An owner of a handle is closed early, moved, or never owned one => the handle is closed once, or not at all
TEST_F(OwnedHandle, ClosesOnceAtTheEnd)
{
    {
        const Number owner(7);
        EXPECT_TRUE(static_cast<bool>(owner));
        EXPECT_EQ(owner.Get(), 7);
    }
    EXPECT_EQ(closed, std::vector<int>{7});
}

TEST_F(OwnedHandle, NothingIsClosedWhenThereIsNoHandle)
{
    {
        Number owner;
        const Number none(-1);
        EXPECT_FALSE(static_cast<bool>(owner));
        EXPECT_FALSE(static_cast<bool>(none));
        EXPECT_EQ(owner.Get(), -1);
        owner.Close();
    }
    EXPECT_TRUE(closed.empty());
}

TEST_F(OwnedHandle, ZeroIsAHandleWhenNoneIsAnotherValue)
{
    {
        const Number owner(0);
        EXPECT_TRUE(static_cast<bool>(owner));
    }
    EXPECT_EQ(closed, std::vector<int>{0});
}

TEST_F(OwnedHandle, ClosedEarlyItIsNotClosedAgain)
{
    {
        Number owner(7);
        owner.Close();
        EXPECT_FALSE(static_cast<bool>(owner));
        owner.Close();
    }
    EXPECT_EQ(closed, std::vector<int>{7});
}

TEST_F(OwnedHandle, WhatIsReleasedIsTheCallersToClose)
{
    {
        Number owner(7);
        EXPECT_EQ(owner.Release(), 7);
        EXPECT_FALSE(static_cast<bool>(owner));
    }
    EXPECT_TRUE(closed.empty());
}

TEST_F(OwnedHandle, MovingHandsOverAndClosesWhatWasThere)
{
    {
        Number first(1);
        Number second(std::move(first));
        EXPECT_EQ(second.Get(), 1);
        EXPECT_TRUE(closed.empty());
        Number third(3);
        third = std::move(second);
        EXPECT_EQ(third.Get(), 1);
        EXPECT_EQ(closed, std::vector<int>{3});
        Number& same = third;
        third = std::move(same);
        EXPECT_EQ(third.Get(), 1);
        EXPECT_EQ(closed, std::vector<int>{3});
    }
    EXPECT_EQ(closed, (std::vector<int>{3, 1}));
}

TEST_F(OwnedHandle, TwoAreClosedInTheReverseOrderOfTheirDeclaration)
{
    {
        const Number outer(1);
        const Number inner(2);
    }
    EXPECT_EQ(closed, (std::vector<int>{2, 1}));
}

TEST(OwnedKinds, EachClosesItsOwnWayAndKnowsItsOwnNone)
{
    std::vector<HANDLE> handles;
    std::vector<HKEY> keys;
    SUBSTITUTE(CloseHandle)
    closeHandle([&](HANDLE handle) {
        handles.push_back(handle);
        return TRUE;
    });
    SUBSTITUTE(RegCloseKey)
    closeKey([&](HKEY key) {
        keys.push_back(key);
        return ERROR_SUCCESS;
    });
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
