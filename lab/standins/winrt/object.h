// The common part of every object of the component: it answers as the script says, records each call, and is in a list
// of living objects.
#pragma once
#include <string>
#include <vector>

#include "classes.h"
#include "com_object.h"
#include "record.h"

namespace lab
{
std::wstring InterfaceName(const GUID& iid);

// In the list of living objects: at the end of the process it shows what the program never released.
class Living
{
public:
    Living(std::wstring className, Answers answers);
    Living(const Living&) = delete;
    Living& operator=(const Living&) = delete;

    const std::wstring& ClassName() const { return className_; }
    virtual ULONG References() const = 0;

protected:
    virtual ~Living();

    // The answer that the script has for this call of the method; null if the call succeeds.
    const Answer* AnswerOf(const std::wstring& method);

private:
    std::wstring className_;
    Answers answers_;
    std::map<std::wstring, unsigned> calls_;
};

// Writes "still held: <class> refs=<n>" for each living object.
void RecordWhatIsStillHeld();

template <class... Interfaces>
class Object : public Living, public abi::ComObject<Interfaces...>
{
public:
    explicit Object(std::wstring className, Answers answers = {}) : Living(std::move(className), std::move(answers)) {}

    ULONG References() const override { return this->CountReferences(); }

    HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HSTRING* name) override
    {
        *name = NewString(ClassName());
        return S_OK;
    }

protected:
    // Ends a method as the script says: with a failure, with null, or with what `make` returns. Recorded as `text`.
    template <class Value, class Make>
    HRESULT Give(const std::wstring& method, const std::wstring& text, Value* value, Make make)
    {
        const Answer* const answer = AnswerOf(method);
        constexpr bool kIsString = std::is_same_v<Value, HSTRING>;
        if (answer == nullptr || (kIsString && FAILED(answer->result)))
        {
            *value = make();  // returned even with a failure: the caller must free it
        }
        else if constexpr (std::is_pointer_v<Value>)
        {
            *value = nullptr;
        }
        return Record(text, answer == nullptr ? S_OK : answer->Give());
    }

    HRESULT Refuse(const GUID& iid) override
    {
        const Answer* const answer = AnswerOf(InterfaceName(iid));
        return answer == nullptr ? S_OK : answer->Give();
    }

    void Asked(const GUID& iid, HRESULT result) override
    {
        Record(L"QueryInterface " + ClassName() + L" " + InterfaceName(iid), result);
    }
};

// The program's own objects. One reference of each is kept until the process ends, to see what the program still holds
// then.
struct Kept
{
    const wchar_t* what;
    IUnknown* object;
};
std::vector<Kept>& TheKept();
void KeepUntilTheEnd(const wchar_t* what, IUnknown* object);
void RecordWhatTheProgramStillHolds();
}  // namespace lab
