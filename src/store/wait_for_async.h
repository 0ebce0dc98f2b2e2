// Blocks until an asynchronous operation of the Windows Runtime has finished.
#pragma once

#include <atomic>
#include <utility>

#include <windows.h>

#include "base/handles.h"
#include "store/com_object.h"
#include "store/winrt_abi.h"
#include "store/winrt_runtime.h"

namespace repair
{
inline constexpr HRESULT kCanceledError = static_cast<HRESULT>(0x800704C7);  // HRESULT_FROM_WIN32(ERROR_CANCELLED)

// Records the final status and wakes the waiter. The operation may call it before, inside or after put_Completed, on
// any thread, and may keep it longer than the waiter does; so it owns event and status.
template <typename Identity>
class CompletedHandler final : public ComObject<CompletedHandler<Identity>, abi::ICompletedHandler<Identity>>
{
public:
    // Throws WinrtError if no event can be created.
    static Reference<CompletedHandler> Create()
    {
        EventHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!event)
        {
            ThrowOwnError(HRESULT_FROM_WIN32(GetLastError()));
        }
        return Reference<CompletedHandler>(new CompletedHandler(std::move(event)));
    }

    abi::AsyncStatus Wait()
    {
        WaitForSingleObject(event_.Get(), INFINITE);
        return status_;
    }

    HRESULT STDMETHODCALLTYPE Invoke(abi::IAsyncOperation<Identity>*, abi::AsyncStatus status) override
    {
        status_ = status;
        SetEvent(event_.Get());
        return S_OK;
    }

private:
    explicit CompletedHandler(EventHandle event) : event_(std::move(event)) {}

    std::atomic<abi::AsyncStatus> status_ = abi::AsyncStatus::kStarted;
    EventHandle event_;
};

// Waits without a time limit and returns the operation's result. Throws WinrtError with the operation's own error, or
// with kCanceledError if it was canceled.
template <typename Identity>
Reference<typename Identity::Result> WaitForAsync(abi::IAsyncOperation<Identity>* operation)
{
    const Reference<abi::IAsyncInfo> information = QueryFor<abi::IAsyncInfo>(operation);
    abi::AsyncStatus status = abi::AsyncStatus::kStarted;
    CheckResult(information.Get()->get_Status(&status));
    if (status == abi::AsyncStatus::kStarted)
    {
        const auto handler = CompletedHandler<Identity>::Create();
        CheckResult(operation->put_Completed(handler.Get()));
        status = handler.Get()->Wait();
    }
    if (status == abi::AsyncStatus::kCanceled)
    {
        ThrowOwnError(kCanceledError);
    }
    return Receive<typename Identity::Result>([&](auto** result) { return operation->GetResults(result); });
}
}  // namespace repair
