// C:\lab\standins\winrt-calls.txt: what the program did with the component.
#pragma once
#include <windows.h>

#include <string>

namespace lab
{
// Appends "<text> thread=<n>"; threads are numbered from 1 in the order of their first call.
void Record(const std::wstring& text);

// Records "<text> -> <result>" and returns the result.
HRESULT Record(const std::wstring& text, HRESULT result);

// For the end of the process: no thread number and no lock, because the other threads may have been killed holding it.
void RecordAtEnd(const std::wstring& text);
}  // namespace lab
