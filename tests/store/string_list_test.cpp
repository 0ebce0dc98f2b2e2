#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/string_list.h"
#include "support/fake_runtime.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace repair
{
namespace
{
constexpr HRESULT kBounds = static_cast<HRESULT>(0x8000000B);

// The list as the Store sees it.
class StringListTest : public testing::Test
{
protected:
    void Make(const std::vector<std::wstring>& texts)
    {
        void* const object = MakeStringList(texts).Release();
        list_ = static_cast<component::IStringIterable*>(object);
    }
    component::IStringVectorView* View()
    {
        void* view = nullptr;
        EXPECT_EQ(list_->QueryInterface(component::IStringVectorView::kIid, &view), S_OK);
        return static_cast<component::IStringVectorView*>(view);
    }
    component::IStringIterator* First()
    {
        component::IStringIterator* iterator = nullptr;
        EXPECT_EQ(list_->First(&iterator), S_OK);
        return iterator;
    }
    static std::vector<std::wstring> Take(const std::vector<HSTRING>& strings, UINT32 count)
    {
        std::vector<std::wstring> texts;
        for (UINT32 i = 0; i < count; ++i)
        {
            texts.push_back(TextOf(strings[i]));
            DeleteString(strings[i]);
        }
        return texts;
    }
    // What GetMany gives; `where` is the start, of a view only, and the capacity.
    template <typename Source, typename... Where>
    static std::vector<std::wstring> Many(Source* source, Where... where)
    {
        std::vector<HSTRING> strings(5, nullptr);
        UINT32 actual = 99;
        EXPECT_EQ(source->GetMany(where..., strings.data(), &actual), S_OK);
        return Take(strings, actual);
    }
    // No text and no object may be left when the list has gone.
    void TearDown() override
    {
        if (list_ != nullptr)
        {
            EXPECT_EQ(list_->Release(), 0u);
        }
        EXPECT_EQ(LiveStrings(), 0);
    }

    FakeRuntime runtime_;
    component::IStringIterable* list_ = nullptr;
};

// Proves: The list of products is read => at once or later, one by one or together: one entry
TEST_F(StringListTest, IteratorGivesEachTextAndThenTheEnd)
{
    Make({L"one", L"two"});
    component::IStringIterator* const iterator = First();
    for (const wchar_t* expected : {L"one", L"two"})
    {
        boolean has[2] = {7, 7};
        EXPECT_EQ(iterator->get_HasCurrent(has), S_OK);
        EXPECT_EQ(has[0], 1);
        EXPECT_EQ(has[1], 7);  // a boolean is one byte wide
        HSTRING text = nullptr;
        EXPECT_EQ(iterator->get_Current(&text), S_OK);
        EXPECT_EQ(TextOf(text), expected);
        DeleteString(text);
        EXPECT_EQ(iterator->MoveNext(has), S_OK);
        EXPECT_EQ(has[0], std::wstring(expected) == L"one" ? 1 : 0);
        EXPECT_EQ(has[1], 7);
    }
    boolean has = 7;
    EXPECT_EQ(iterator->MoveNext(&has), S_OK);  // the end stays the end
    EXPECT_EQ(has, 0);
    EXPECT_EQ(iterator->get_HasCurrent(&has), S_OK);
    EXPECT_EQ(has, 0);
    HSTRING text = reinterpret_cast<HSTRING>(&has);
    EXPECT_EQ(iterator->get_Current(&text), kBounds);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(iterator->Release(), 0u);
}

TEST_F(StringListTest, TwoIteratorsDoNotDisturbEachOther)
{
    Make({L"one", L"two"});
    component::IStringIterator* const first = First();
    component::IStringIterator* const second = First();
    boolean has = 0;
    first->MoveNext(&has);
    std::vector<HSTRING> strings(1);
    EXPECT_EQ(second->get_Current(strings.data()), S_OK);
    EXPECT_THAT(Take(strings, 1), ElementsAre(L"one"));
    first->Release();
    second->Release();
}

TEST_F(StringListTest, IteratorAndTextsOutliveTheList)
{
    Make({L"one"});
    component::IStringIterator* const iterator = First();
    EXPECT_EQ(list_->Release(), 0u);
    list_ = nullptr;
    std::vector<HSTRING> strings(1);
    EXPECT_EQ(iterator->get_Current(strings.data()), S_OK);
    EXPECT_EQ(iterator->Release(), 0u);
    EXPECT_THAT(Take(strings, 1), ElementsAre(L"one"));
}

TEST_F(StringListTest, IteratorGivesManyAtOnceAndGoesOnAfterThem)
{
    Make({L"one", L"two", L"three"});
    component::IStringIterator* const iterator = First();
    EXPECT_THAT(Many(iterator, 2u), ElementsAre(L"one", L"two"));
    EXPECT_THAT(Many(iterator, 5u), ElementsAre(L"three"));
    EXPECT_THAT(Many(iterator, 5u), IsEmpty());
    boolean has = 7;
    iterator->get_HasCurrent(&has);
    EXPECT_EQ(has, 0);
    iterator->Release();
}

TEST_F(StringListTest, ViewGivesSizeAndTextsByIndex)
{
    Make({L"one", L"two"});
    component::IStringVectorView* const view = View();
    UINT32 size = 0;
    EXPECT_EQ(view->get_Size(&size), S_OK);
    EXPECT_EQ(size, 2u);
    std::vector<HSTRING> strings(2, nullptr);
    EXPECT_EQ(view->GetAt(0, &strings[0]), S_OK);
    EXPECT_EQ(view->GetAt(1, &strings[1]), S_OK);
    EXPECT_THAT(Take(strings, 2), ElementsAre(L"one", L"two"));
    HSTRING beyond = reinterpret_cast<HSTRING>(&size);
    EXPECT_EQ(view->GetAt(2, &beyond), kBounds);
    EXPECT_EQ(beyond, nullptr);
    EXPECT_EQ(view->GetAt(0xFFFFFFFF, &beyond), kBounds);
    view->Release();
}

TEST_F(StringListTest, ViewFindsTexts)
{
    Make({L"one", L"two"});
    component::IStringVectorView* const view = View();
    struct Case
    {
        const wchar_t* text;
        UINT32 index;
        boolean found;
    };
    for (const Case& wanted : {Case{L"one", 0, 1}, Case{L"two", 1, 1}, Case{L"TWO", 0, 0}, Case{L"", 0, 0}})
    {
        const HSTRING text = MakeString(wanted.text);
        UINT32 index = 99;
        boolean found[2] = {7, 7};
        EXPECT_EQ(view->IndexOf(text, &index, found), S_OK);
        EXPECT_EQ(index, wanted.index);
        EXPECT_EQ(found[0], wanted.found);
        EXPECT_EQ(found[1], 7);
        DeleteString(text);
    }
    view->Release();
}

TEST_F(StringListTest, ViewGivesManyFromAnyStart)
{
    Make({L"one", L"two", L"three"});
    component::IStringVectorView* const view = View();
    EXPECT_THAT(Many(view, 1u, 5u), ElementsAre(L"two", L"three"));
    EXPECT_THAT(Many(view, 0u, 1u), ElementsAre(L"one"));
    EXPECT_THAT(Many(view, 3u, 5u), IsEmpty());
    EXPECT_THAT(Many(view, 0u, 0u), IsEmpty());
    view->Release();
}

// Proves: The Store asks what kind of object the list is, and keeps it => it is one object behind all its interfaces, counted
TEST_F(StringListTest, EveryInterfaceLeadsToTheSameIdentity)
{
    Make({L"one"});
    component::IStringVectorView* const view = View();
    void* identity = nullptr;
    void* ofView = nullptr;
    EXPECT_EQ(list_->QueryInterface(IID_IUnknown, &identity), S_OK);
    EXPECT_EQ(view->QueryInterface(IID_IUnknown, &ofView), S_OK);
    EXPECT_EQ(identity, ofView);
    void* back = nullptr;
    EXPECT_EQ(view->QueryInterface(component::IStringIterable::kIid, &back), S_OK);
    EXPECT_EQ(back, list_);
    for (int i = 0; i < 4; ++i)
    {
        list_->Release();
    }
    for (const GUID& id : {component::IInspectable::kIid, component::IAgileObject::kIid})
    {
        void* found = nullptr;
        EXPECT_EQ(list_->QueryInterface(id, &found), S_OK);
        EXPECT_NE(found, nullptr);
        list_->Release();
    }
    void* other = list_;
    EXPECT_EQ(list_->QueryInterface(component::IStringIterator::kIid, &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(list_->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
}

TEST_F(StringListTest, IsAnInspectableObjectOfBaseTrust)
{
    Make({L"one"});
    ULONG count = 9;
    GUID* ids = nullptr;
    EXPECT_EQ(list_->GetIids(&count, &ids), S_OK);
    EXPECT_EQ(count, 0u);
    HSTRING name = reinterpret_cast<HSTRING>(&count);
    EXPECT_EQ(list_->GetRuntimeClassName(&name), S_OK);
    EXPECT_EQ(name, nullptr);
    std::int32_t level = 9;
    EXPECT_EQ(list_->GetTrustLevel(&level), S_OK);
    EXPECT_EQ(level, 0);
}

TEST_F(StringListTest, ReferencesAreCounted)
{
    Make({L"one"});
    EXPECT_EQ(list_->AddRef(), 2u);
    EXPECT_EQ(list_->AddRef(), 3u);
    EXPECT_EQ(list_->Release(), 2u);
    EXPECT_EQ(list_->Release(), 1u);
}

TEST_F(StringListTest, EmptyListHasNothing)
{
    Make({});
    component::IStringIterator* const iterator = First();
    boolean has = 7;
    EXPECT_EQ(iterator->get_HasCurrent(&has), S_OK);
    EXPECT_EQ(has, 0);
    iterator->Release();
}

TEST_F(StringListTest, TextsThatCannotBeCopiedAreAFailureAndNoneIsHandedOut)
{
    Make({L"one", L"two"});
    component::IStringIterator* const iterator = First();
    runtime_.faults.fails[L"WindowsDuplicateString"] = E_OUTOFMEMORY;
    std::vector<HSTRING> strings(2, nullptr);
    UINT32 actual = 99;
    EXPECT_EQ(iterator->GetMany(2, strings.data(), &actual), E_OUTOFMEMORY);
    EXPECT_EQ(actual, 0u);
    runtime_.faults.fails[L"WindowsDuplicateString"] = E_FAIL;
    EXPECT_EQ(iterator->get_Current(&strings[0]), E_FAIL);
    EXPECT_EQ(strings[0], nullptr);
    boolean has = 0;
    iterator->get_HasCurrent(&has);
    EXPECT_EQ(has, 1);  // still at the first
    iterator->Release();
    runtime_.faults.fails.clear();
}

// Proves: A text of the list cannot be made or copied => a failure, and nothing half done is handed out
TEST_F(StringListTest, TextsThatCannotBeMadeAreThrown)
{
    runtime_.faults.fails[L"WindowsCreateString"] = E_FAIL;
    EXPECT_THROW(MakeStringList({L"one"}), WinrtError);
}
}  // namespace
}  // namespace repair
