// C:\lab\standins\winrt-calls.txt: what the program did with the component.
#pragma once
#include <windows.h>

#include <string>

namespace lab
{
// Appends "<text> thread=<n>"; threads are numbered from 1 in the order in which they turn up.
void Record(const std::wstring& text);

// "<text> -> <result>", and hands the result on.
HRESULT Record(const std::wstring& text, HRESULT result);

// While the process ends: no thread number, no lock, because the other threads were killed wherever they stood.
void RecordAtEnd(const std::wstring& text);

HRESULT UnusedSlot(const wchar_t* interfaceName, const wchar_t* method);

std::wstring HresultText(HRESULT result);
}  // namespace lab
