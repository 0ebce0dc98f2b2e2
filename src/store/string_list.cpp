#include "store/string_list.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <windows.h>

#include "store/com_object.h"

namespace repair
{
namespace
{
using Texts = std::shared_ptr<const std::vector<HStringOwner>>;

// Copies texts from `start` on; the receiver owns the copies. Returns none if one copy fails.
HRESULT CopyTexts(const std::vector<HStringOwner>& texts, size_t start, UINT32 capacity, abi::HString* items,
                  UINT32* actual) noexcept
{
    *actual = 0;
    const size_t available = start < texts.size() ? texts.size() - start : 0;
    const size_t count = std::min<size_t>(capacity, available);
    try
    {
        std::vector<HStringOwner> copies;
        copies.reserve(count);  // adding a copy cannot fail then, so every copy gets an owner
        for (size_t i = 0; i < count; ++i)
        {
            copies.emplace_back(DuplicateHString(texts[start + i].Get()));
        }
        for (size_t i = 0; i < count; ++i)
        {
            items[i] = copies[i].Release();
        }
        *actual = static_cast<UINT32>(count);
        return S_OK;
    }
    catch (const WinrtError& error)
    {
        return error.code;
    }
    catch (...)
    {
        return E_OUTOFMEMORY;
    }
}

template <typename Derived, typename... Interfaces>
class TextObject : public ComObject<Derived, Interfaces...>
{
public:
    HRESULT STDMETHODCALLTYPE GetIids(ULONG* count, GUID** iids) override
    {
        *count = 0;
        *iids = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetRuntimeClassName(abi::HString* name) override
    {
        *name = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTrustLevel(std::int32_t* level) override
    {
        *level = 0;  // base trust
        return S_OK;
    }
};

class TextIterator final : public TextObject<TextIterator, abi::IStringIterator>
{
public:
    explicit TextIterator(Texts texts) : texts_(std::move(texts)) {}

    HRESULT STDMETHODCALLTYPE get_Current(abi::HString* current) override
    {
        *current = nullptr;
        UINT32 actual = 0;
        return position_ < texts_->size() ? CopyTexts(*texts_, position_, 1, current, &actual) : abi::kErrorBounds;
    }
    HRESULT STDMETHODCALLTYPE get_HasCurrent(abi::Boolean* hasCurrent) override
    {
        *hasCurrent = position_ < texts_->size() ? 1 : 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE MoveNext(abi::Boolean* hasCurrent) override
    {
        if (position_ < texts_->size())
        {
            ++position_;
        }
        return get_HasCurrent(hasCurrent);
    }
    HRESULT STDMETHODCALLTYPE GetMany(UINT32 capacity, abi::HString* items, UINT32* actual) override
    {
        const HRESULT result = CopyTexts(*texts_, position_, capacity, items, actual);
        position_ += *actual;
        return result;
    }

private:
    Texts texts_;
    size_t position_ = 0;
};

class TextList final : public TextObject<TextList, abi::IStringIterable, abi::IStringVectorView>
{
public:
    explicit TextList(Texts texts) : texts_(std::move(texts)) {}

    HRESULT STDMETHODCALLTYPE First(abi::IStringIterator** iterator) override
    {
        try
        {
            *iterator = new TextIterator(texts_);
            return S_OK;
        }
        catch (...)
        {
            *iterator = nullptr;
            return E_OUTOFMEMORY;
        }
    }
    HRESULT STDMETHODCALLTYPE GetAt(UINT32 index, abi::HString* item) override
    {
        *item = nullptr;
        UINT32 actual = 0;
        return index < texts_->size() ? CopyTexts(*texts_, index, 1, item, &actual) : abi::kErrorBounds;
    }
    HRESULT STDMETHODCALLTYPE get_Size(UINT32* size) override
    {
        *size = static_cast<UINT32>(texts_->size());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE IndexOf(abi::HString item, UINT32* index, abi::Boolean* found) override
    {
        *index = 0;
        *found = 0;
        try
        {
            const std::wstring wanted = ToWide(item);
            for (size_t i = 0; i < texts_->size() && *found == 0; ++i)
            {
                if (ToWide((*texts_)[i].Get()) == wanted)
                {
                    *index = static_cast<UINT32>(i);
                    *found = 1;
                }
            }
            return S_OK;
        }
        catch (...)
        {
            return E_OUTOFMEMORY;
        }
    }
    HRESULT STDMETHODCALLTYPE GetMany(UINT32 start, UINT32 capacity, abi::HString* items, UINT32* actual) override
    {
        return CopyTexts(*texts_, start, capacity, items, actual);
    }

private:
    Texts texts_;
};
}  // namespace

Reference<abi::IStringIterable> MakeStringList(const std::vector<std::wstring>& texts)
{
    auto strings = std::make_shared<std::vector<HStringOwner>>();
    for (const std::wstring& text : texts)
    {
        strings->push_back(MakeHString(text));
    }
    return Reference<abi::IStringIterable>(new TextList(std::move(strings)));
}
}  // namespace repair
