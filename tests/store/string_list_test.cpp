// The list of Store ids as the Store may read it.
#include "store/string_list.h"
#include "support/fake_runtime.h"
#include "support/test.h"

#include <new>

static thread_local bool isOutOfMemory = false;

void* operator new(size_t bytes)
{
    void* const memory = isOutOfMemory ? nullptr : HeapAlloc(GetProcessHeap(), 0, bytes);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    HeapFree(GetProcessHeap(), 0, memory);
}

void operator delete(void* memory, size_t) noexcept
{
    HeapFree(GetProcessHeap(), 0, memory);
}

namespace repair
{
namespace
{
constexpr HRESULT kBounds = static_cast<HRESULT>(0x8000000B);

std::wstring Take(HSTRING string)
{
    const std::wstring text = lab::TextOf(string);
    WindowsDeleteString(string);
    return text;
}

// What GetMany gives; `where` is the start, of a view only, and the capacity.
template <typename Source, typename... Where>
std::vector<std::wstring> Many(const Source& source, Where... where)
{
    HSTRING strings[5] = {};
    UINT32 actual = 99;
    EXPECT_EQ(source.Get()->GetMany(where..., strings, &actual), S_OK);
    std::vector<std::wstring> texts;
    for (UINT32 i = 0; i < actual && i < std::size(strings); ++i)
    {
        texts.push_back(Take(strings[i]));
    }
    return texts;
}

class StringListTest : public testing::Test
{
protected:
    using View = Reference<component::IStringVectorView>;
    using Iterator = Reference<component::IStringIterator>;

    View GetView()
    {
        void* view = nullptr;
        EXPECT_EQ(list_->QueryInterface(component::IStringVectorView::kIid, &view), S_OK);
        return View(static_cast<component::IStringVectorView*>(view));
    }
    Iterator First()
    {
        component::IStringIterator* iterator = nullptr;
        EXPECT_EQ(list_->First(&iterator), S_OK);
        return Iterator(iterator);
    }
    // The last reference; the runtime checks that no text is left.
    void TearDown() override
    {
        if (list_ != nullptr)
        {
            EXPECT_EQ(list_->Release(), 0u);
        }
    }

    FakeRuntime runtime_;
    component::IStringIterable* list_ = static_cast<component::IStringIterable*>(
        static_cast<void*>(MakeStringList({L"one", L"two", L"three"}).Release()));
};

std::wstring Current(const Reference<component::IStringIterator>& iterator)
{
    HSTRING text = nullptr;
    EXPECT_EQ(iterator.Get()->get_Current(&text), S_OK);
    return Take(text);
}

// Proves: The list of products is read => at once or later, one by one or together: one entry
TEST_F(StringListTest, IteratorGivesEachTextAndThenTheEnd)
{
    const Iterator iterator = First();
    boolean has[2] = {7, 7};
    EXPECT_EQ(iterator.Get()->get_HasCurrent(has), S_OK);
    EXPECT_EQ(has[0], 1);
    EXPECT_EQ(Current(iterator), L"one");
    for (const wchar_t* text : {L"two", L"three"})
    {
        EXPECT_EQ(iterator.Get()->MoveNext(has), S_OK);
        EXPECT_EQ(has[0], 1);
        EXPECT_EQ(Current(iterator), text);
    }
    for (int i = 0; i < 2; ++i)  // the end stays the end
    {
        EXPECT_EQ(iterator.Get()->MoveNext(has), S_OK);
        EXPECT_EQ(has[0], 0);
    }
    EXPECT_EQ(iterator.Get()->get_HasCurrent(has), S_OK);
    EXPECT_EQ(has[0], 0);
    EXPECT_EQ(has[1], 7);  // a boolean is one byte wide
    HSTRING text = reinterpret_cast<HSTRING>(&has);
    EXPECT_EQ(iterator.Get()->get_Current(&text), kBounds);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(Current(First()), L"one");  // each iterator has a place of its own
}

TEST_F(StringListTest, IteratorAndTextsOutliveTheList)
{
    component::IStringIterator* const iterator = First().Release();
    EXPECT_EQ(list_->Release(), 0u);
    list_ = nullptr;
    HSTRING text = nullptr;
    EXPECT_EQ(iterator->get_Current(&text), S_OK);
    EXPECT_EQ(iterator->Release(), 0u);
    EXPECT_EQ(Take(text), L"one");
}

TEST_F(StringListTest, ManyAreGivenAtOnceFromAnyPlace)
{
    const Iterator iterator = First();
    EXPECT_THAT(Many(iterator, 2u), ElementsAre(L"one", L"two"));
    EXPECT_THAT(Many(iterator, 5u), ElementsAre(L"three"));
    EXPECT_THAT(Many(iterator, 5u), IsEmpty());
    const View view = GetView();
    EXPECT_THAT(Many(view, 1u, 5u), ElementsAre(L"two", L"three"));
    EXPECT_THAT(Many(view, 0u, 1u), ElementsAre(L"one"));
    EXPECT_THAT(Many(view, 3u, 5u), IsEmpty());
    EXPECT_THAT(Many(view, 0u, 0u), IsEmpty());
}

TEST_F(StringListTest, ViewGivesSizeAndTextsByIndexAndFindsThem)
{
    const View view = GetView();
    UINT32 size = 0;
    EXPECT_EQ(view.Get()->get_Size(&size), S_OK);
    EXPECT_EQ(size, 3u);
    for (const UINT32 index : {3u, 0xFFFFFFFFu})
    {
        HSTRING beyond = reinterpret_cast<HSTRING>(&size);
        EXPECT_EQ(view.Get()->GetAt(index, &beyond), kBounds);
        EXPECT_EQ(beyond, nullptr);
    }
    const std::tuple<const wchar_t*, UINT32, boolean> rows[] = {
        {L"one", 0, 1}, {L"two", 1, 1}, {L"three", 2, 1}, {L"TWO", 0, 0}, {L"", 0, 0}};
    for (const auto& [wanted, place, isThere] : rows)
    {
        const HSTRING text = lab::NewString(wanted);
        UINT32 index = 99;
        boolean found[2] = {7, 7};
        EXPECT_EQ(view.Get()->IndexOf(text, &index, found), S_OK);
        EXPECT_EQ(std::tuple(index, found[0], found[1]), std::tuple(place, isThere, 7));
        WindowsDeleteString(text);
        HSTRING there = nullptr;
        EXPECT_EQ(view.Get()->GetAt(place, &there), S_OK);
        EXPECT_EQ(Take(there) == wanted, isThere == 1);
    }
}

// Proves: The Store asks what kind of object the list is, and keeps it => it is one object behind all its interfaces, counted
TEST_F(StringListTest, EveryInterfaceLeadsToTheSameIdentityOfBaseTrust)
{
    const View view = GetView();
    void* identity = nullptr;
    void* ofView = nullptr;
    EXPECT_EQ(list_->QueryInterface(IID_IUnknown, &identity), S_OK);
    EXPECT_EQ(view.Get()->QueryInterface(IID_IUnknown, &ofView), S_OK);
    EXPECT_EQ(identity, ofView);
    void* back = nullptr;
    EXPECT_EQ(view.Get()->QueryInterface(component::IStringIterable::kIid, &back), S_OK);
    EXPECT_EQ(back, list_);
    for (const ULONG left : {4u, 3u, 2u})
    {
        EXPECT_EQ(list_->Release(), left);
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

TEST_F(StringListTest, AnIteratorForWhichThereIsNoMemoryIsAFailure)
{
    component::IStringIterator* iterator = reinterpret_cast<component::IStringIterator*>(this);
    isOutOfMemory = true;
    const HRESULT result = list_->First(&iterator);
    isOutOfMemory = false;
    EXPECT_EQ(result, E_OUTOFMEMORY);
    EXPECT_EQ(iterator, nullptr);
}

TEST_F(StringListTest, TextsThatCannotBeCopiedAreAFailureAndNoneIsHandedOut)
{
    const Iterator iterator = First();
    runtime_.failingFunctions["WindowsDuplicateString"] = E_OUTOFMEMORY;
    HSTRING strings[2] = {};
    UINT32 actual = 99;
    EXPECT_EQ(iterator.Get()->GetMany(2, strings, &actual), E_OUTOFMEMORY);
    EXPECT_EQ(actual, 0u);
    runtime_.failingFunctions["WindowsDuplicateString"] = E_FAIL;
    EXPECT_EQ(iterator.Get()->get_Current(&strings[0]), E_FAIL);
    EXPECT_EQ(strings[0], nullptr);
    boolean has = 0;
    iterator.Get()->get_HasCurrent(&has);
    EXPECT_EQ(has, 1);  // still at the first
}

// Proves: A text of the list cannot be made or copied => a failure, and no incomplete list is returned
TEST_F(StringListTest, TextsThatCannotBeMadeAreThrown)
{
    runtime_.failingFunctions["WindowsCreateString"] = E_FAIL;
    EXPECT_THROW(MakeStringList({L"one"}), WinrtError);
}
}  // namespace
}  // namespace repair
