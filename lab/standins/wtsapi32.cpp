// Stand-in for wtsapi32.dll: sessions are Wine's.
#include <windows.h>
#include <wtsapi32.h>

#include <cwchar>

#include "fault.h"

using standin::Call;
using standin::Failure;

namespace standin
{
const std::vector<std::wstring> kSpecialKeys = {L"WTSQuerySessionInformationW text"};
}

extern "C"
{
// text=<text>: what the caller gets when the call is not forwarded. "return=1" without it gives success and no buffer.
WINBOOL WINAPI Lab_WTSQuerySessionInformationW(HANDLE server, DWORD session, WTS_INFO_CLASS kind, LPWSTR* buffer,
                                               DWORD* count)
{
    Call call(L"WTSQuerySessionInformationW");
    call.Flags(L"server", reinterpret_cast<ULONG_PTR>(server)).Number(L"session", static_cast<int>(session));
    call.Number(L"class", kind);
    const BOOL result =
        call.Forward(Failure::Zero, REAL(WTSQuerySessionInformationW), server, session, kind, buffer, count);
    if (result && !call.WasForwarded())
    {
        const auto given = call.Given(L"text");
        const std::size_t size = given ? (given->size() + 1) * sizeof(wchar_t) : 0;
        // From the heap for which the real WTSFreeMemory frees it.
        *buffer = given ? static_cast<wchar_t*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size)) : nullptr;
        if (*buffer != nullptr)
        {
            std::wcscpy(*buffer, given->c_str());
        }
        *count = static_cast<DWORD>(size);
    }
    if (result && (kind == WTSUserName || kind == WTSDomainName))
    {
        call.Text(L"text", *buffer);
    }
    return result;
}

void WINAPI Lab_WTSFreeMemory(void* memory)
{
    Call call(L"WTSFreeMemory");
    call.Raw(L"memory", memory == nullptr ? L"(null)" : L"given");
    call.ForwardVoid(REAL(WTSFreeMemory), memory);
}
}
