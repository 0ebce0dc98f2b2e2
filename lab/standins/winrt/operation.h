// An asynchronous operation that ends when and how the script says.
#pragma once
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "object.h"

namespace lab
{
inline constexpr HRESULT kIllegalMethodCall = static_cast<HRESULT>(0x8000000E);
inline constexpr HRESULT kIllegalDelegateAssignment = static_cast<HRESULT>(0x80000018);
inline constexpr HRESULT kNotAgile = static_cast<HRESULT>(0x8000001C);

struct OperationPlan
{
    Answers answers;
    Completion completion;
    Ending ending;
    std::function<void(abi::AsyncStatus)> finish;   // the work itself, once, before the end is visible
    std::function<abi::IInspectable*()> newResult;  // of an operation that completed
};

// Asks the program's object whether any thread may call it, and records the answer.
inline bool IsAgile(const wchar_t* what, IUnknown* object)
{
    void* agile = nullptr;
    const HRESULT result = object->QueryInterface(abi::IAgileObject::kIid, &agile);
    Record(std::wstring(what) + L" QueryInterface IAgileObject", result);
    if (SUCCEEDED(result) && agile != nullptr)
    {
        static_cast<IUnknown*>(agile)->Release();
    }
    return SUCCEEDED(result) && agile != nullptr;
}

template <class Interface>
class Operation final : public Object<Interface, abi::IAsyncInfo>
{
public:
    static Operation* Start(const wchar_t* className, OperationPlan plan)
    {
        auto* const operation = new Operation(className, std::move(plan));
        if (operation->plan_.completion.kind == Completion::kBefore)
        {
            operation->Complete();
        }
        else if (operation->plan_.completion.kind == Completion::kLater)
        {
            operation->CompleteLater();
        }
        return operation;
    }

    ~Operation() override
    {
        if (thread_.joinable())
        {
            thread_.join();
        }
        if (handler_ != nullptr)
        {
            handler_->Release();
        }
        Record(this->ClassName() + L" destroyed");
    }

    HRESULT STDMETHODCALLTYPE get_Status(INT32* status) override
    {
        const INT32 now = Status();
        return this->Give(L"IAsyncInfo.get_Status", this->ClassName() + L" get_Status " + std::to_wstring(now), status,
                          [now] { return now; });
    }

    HRESULT STDMETHODCALLTYPE get_ErrorCode(HRESULT* error) override
    {
        *error = Status() == abi::kError ? plan_.ending.error.result : S_OK;
        return Record(this->ClassName() + L" get_ErrorCode", S_OK);
    }

    HRESULT STDMETHODCALLTYPE put_Completed(abi::ICompletedHandler* handler) override
    {
        const HRESULT result = Accept(handler);
        Record(this->ClassName() + L" put_Completed", result);
        if (FAILED(result))
        {
            return result;
        }
        if (plan_.completion.kind == Completion::kInside)
        {
            Complete();
        }
        else if (plan_.completion.kind == Completion::kThread)
        {
            std::thread([this] { Complete(); }).join();
        }
        CallHandler();  // an operation that ended before it had a handler calls it at once
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetResults(abi::IInspectable** result) override
    {
        const std::wstring text = this->ClassName() + L" GetResults";
        const abi::AsyncStatus status = Status();
        if (status == abi::kCompleted)
        {
            return this->Give(L"GetResults", text, result, plan_.newResult);
        }
        // There is no result before the operation ends, or after it was canceled.
        return Record(text, status == abi::kError ? plan_.ending.error.Give() : kIllegalMethodCall);
    }

private:
    Operation(const wchar_t* className, OperationPlan plan)
        : Object<Interface, abi::IAsyncInfo>(className, plan.answers), plan_(std::move(plan))
    {
    }

    abi::AsyncStatus Status()
    {
        const std::scoped_lock lock(mutex_);
        return status_;
    }

    HRESULT Accept(abi::ICompletedHandler* handler)
    {
        if (handler == nullptr)
        {
            return E_POINTER;
        }
        void* asked = nullptr;
        const HRESULT hasInterface = handler->QueryInterface(Interface::kHandlerIid, &asked);
        Record(L"handler QueryInterface own interface", hasInterface);
        if (FAILED(hasInterface))
        {
            return hasInterface;
        }
        static_cast<IUnknown*>(asked)->Release();
        if (!IsAgile(L"handler", handler))
        {
            return kNotAgile;
        }
        if (const Answer* const failure = this->AnswerOf(L"put_Completed"))
        {
            return failure->Give();
        }
        const std::scoped_lock lock(mutex_);
        if (handler_ != nullptr)
        {
            return kIllegalDelegateAssignment;
        }
        handler->AddRef();
        handler_ = handler;
        KeepUntilTheEnd(L"handler", handler);
        return S_OK;
    }

    // The operation outlives this thread: its destructor waits.
    void CompleteLater()
    {
        thread_ = std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(plan_.completion.milliseconds));
            Complete();
        });
    }

    void Complete()
    {
        plan_.finish(plan_.ending.status);
        {
            const std::scoped_lock lock(mutex_);
            status_ = plan_.ending.status;
        }
        CallHandler();
    }

    // Calls the handler once the operation has ended and has a handler; without the lock, because the handler may call
    // back.
    void CallHandler()
    {
        {
            const std::scoped_lock lock(mutex_);
            if (status_ == abi::kStarted || handler_ == nullptr || isHandlerCalled_)
            {
                return;
            }
            isHandlerCalled_ = true;
        }
        Record(this->ClassName() + L" calls the handler, status " + std::to_wstring(plan_.ending.status));
        const HRESULT result = handler_->Invoke(static_cast<Interface*>(this), plan_.ending.status);
        Record(L"handler Invoke", result);
    }

    OperationPlan plan_;
    std::mutex mutex_;
    std::thread thread_;
    abi::AsyncStatus status_ = abi::kStarted;
    abi::ICompletedHandler* handler_ = nullptr;
    bool isHandlerCalled_ = false;
};
}  // namespace lab
