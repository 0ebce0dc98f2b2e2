// Stand-in for wininet.dll: transfers are Wine's. What a server cannot provoke (a failing session, an extended error)
// comes from a fault rule.
#include <windows.h>
#include <wininet.h>

#include <cwchar>

#include "fault.h"

using standin::Call;
using standin::Failure;

namespace standin
{
const std::vector<std::wstring> kSpecialKeys = {L"InternetReadFile count", L"HttpQueryInfoW status",
                                                L"InternetGetLastResponseInfoW code",
                                                L"InternetGetLastResponseInfoW text"};
}

namespace
{
std::wstring List(LPCWSTR* types)
{
    std::wstring list;
    for (; types != nullptr && *types != nullptr; ++types)
    {
        list += (list.empty() ? L"" : L", ") + std::wstring(*types);
    }
    return list;
}

unsigned long long Address(const void* pointer)
{
    return reinterpret_cast<ULONG_PTR>(pointer);
}
}  // namespace

extern "C"
{
WINBOOL WINAPI Lab_InternetCrackUrlW(LPCWSTR url, DWORD length, DWORD flags, LPURL_COMPONENTSW parts)
{
    Call call(L"InternetCrackUrlW");
    call.Text(L"url", url).Number(L"length", length).Flags(L"flags", flags);
    const BOOL result = call.Forward(Failure::Zero, REAL(InternetCrackUrlW), url, length, flags, parts);
    if (result && call.WasForwarded())
    {
        call.Text(L"host", parts->dwHostNameLength == 0 ? nullptr : parts->lpszHostName).Number(L"port", parts->nPort);
        call.Text(L"path", parts->dwUrlPathLength == 0 ? nullptr : parts->lpszUrlPath);
    }
    return result;
}

HINTERNET WINAPI Lab_InternetOpenW(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags)
{
    Call call(L"InternetOpenW");
    call.Text(L"agent", agent).Number(L"access", access).Text(L"proxy", proxy).Text(L"bypass", bypass);
    call.Flags(L"flags", flags);
    return call.Forward(Failure::Zero, REAL(InternetOpenW), agent, access, proxy, bypass, flags);
}

HINTERNET WINAPI Lab_InternetConnectW(HINTERNET session, LPCWSTR host, INTERNET_PORT port, LPCWSTR user,
                                      LPCWSTR password, DWORD service, DWORD flags, DWORD_PTR context)
{
    Call call(L"InternetConnectW");
    call.Text(L"host", host).Number(L"port", port).Text(L"user", user).Text(L"password", password);
    call.Number(L"service", service).Flags(L"flags", flags).Flags(L"session", Address(session));
    return call.Forward(Failure::Zero, REAL(InternetConnectW), session, host, port, user, password, service, flags,
                        context);
}

HINTERNET WINAPI Lab_HttpOpenRequestW(HINTERNET connection, LPCWSTR verb, LPCWSTR object, LPCWSTR version,
                                      LPCWSTR referrer, LPCWSTR* types, DWORD flags, DWORD_PTR context)
{
    Call call(L"HttpOpenRequestW");
    call.Text(L"verb", verb).Text(L"object", object).Text(L"version", version).Text(L"referrer", referrer);
    call.Text(L"accept", List(types).c_str()).Flags(L"flags", flags).Flags(L"connection", Address(connection));
    return call.Forward(Failure::Zero, REAL(HttpOpenRequestW), connection, verb, object, version, referrer, types,
                        flags, context);
}

WINBOOL WINAPI Lab_InternetSetOptionW(HINTERNET handle, DWORD option, LPVOID value, DWORD size)
{
    Call call(L"InternetSetOptionW");
    call.Number(L"option", option).Number(L"size", size);
    if (size == sizeof(DWORD) && value != nullptr)
    {
        call.Number(L"value", *static_cast<const DWORD*>(value));
    }
    call.Flags(L"handle", Address(handle));
    return call.Forward(Failure::Zero, REAL(InternetSetOptionW), handle, option, value, size);
}

WINBOOL WINAPI Lab_HttpSendRequestW(HINTERNET request, LPCWSTR headers, DWORD length, LPVOID body, DWORD size)
{
    Call call(L"HttpSendRequestW");
    call.Text(L"headers", headers).Number(L"body", size).Flags(L"request", Address(request));
    return call.Forward(Failure::Zero, REAL(HttpSendRequestW), request, headers, length, body, size);
}

// status=<n>: the number in the caller's buffer, whether the call was forwarded or not.
WINBOOL WINAPI Lab_HttpQueryInfoW(HINTERNET request, DWORD level, LPVOID buffer, LPDWORD size, LPDWORD index)
{
    Call call(L"HttpQueryInfoW");
    call.Flags(L"level", level).Number(L"size", size == nullptr ? 0 : *size).Flags(L"request", Address(request));
    const BOOL result = call.Forward(Failure::Zero, REAL(HttpQueryInfoW), request, level, buffer, size, index);
    const bool isNumber = (level & HTTP_QUERY_FLAG_NUMBER) != 0;
    if (const auto status = call.GivenNumber(L"status"); status && result && isNumber)
    {
        *static_cast<DWORD*>(buffer) = static_cast<DWORD>(*status);
    }
    if (result && isNumber)
    {
        call.Number(L"number", *static_cast<const DWORD*>(buffer));
    }
    return result;
}

// count=<n>: if forwarded, at most this many bytes are asked for; if not, this is the count that the caller finds.
WINBOOL WINAPI Lab_InternetReadFile(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD count)
{
    Call call(L"InternetReadFile");
    call.Number(L"size", size).Flags(L"request", Address(request));
    call.Decide();
    const auto given = call.GivenNumber(L"count");
    const DWORD asked = given && *given < size ? static_cast<DWORD>(*given) : size;
    const BOOL result = call.Forward(Failure::Zero, REAL(InternetReadFile), request, buffer, asked, count);
    if (!call.WasForwarded())
    {
        *count = static_cast<DWORD>(given.value_or(0));
    }
    call.Number(L"count", *count);
    return result;
}

// code=<n> text=<text>: the answer of the server, with the real rules for the size of the buffer.
WINBOOL WINAPI Lab_InternetGetLastResponseInfoW(LPDWORD code, LPWSTR buffer, LPDWORD size)
{
    Call call(L"InternetGetLastResponseInfoW");
    call.Raw(L"buffer", buffer == nullptr ? L"(null)" : L"given").Number(L"size", *size);
    call.Decide();
    const auto text = call.Given(L"text");
    if (!text)
    {
        return call.Forward(Failure::Zero, REAL(InternetGetLastResponseInfoW), code, buffer, size);
    }
    *code = static_cast<DWORD>(call.GivenNumber(L"code").value_or(0));
    const DWORD length = static_cast<DWORD>(text->size());
    if (buffer == nullptr || *size <= length)
    {
        *size = length + 1;  // room for the terminator
        return call.Answer<BOOL>(FALSE, ERROR_INSUFFICIENT_BUFFER);
    }
    std::wcscpy(buffer, text->c_str());
    *size = length;
    return call.Answer<BOOL>(TRUE, ERROR_SUCCESS);
}

WINBOOL WINAPI Lab_InternetCloseHandle(HINTERNET handle)
{
    Call call(L"InternetCloseHandle");
    call.Flags(L"handle", Address(handle));
    return call.Forward(Failure::Zero, REAL(InternetCloseHandle), handle);
}
}
