// The record of the program's calls into the component.
#pragma once
#include <windows.h>

#include <string>

namespace lab
{
void Record(const std::wstring& text);

// For the end of the process: no lock, because the other threads may have been killed holding it.
void RecordAtEnd(const std::wstring& text);

// Records "<text> -> <result>" and returns the result.
HRESULT Record(const std::wstring& text, HRESULT result);
}  // namespace lab
