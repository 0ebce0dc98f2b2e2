// The text files through which a lab run talks to the stand-ins: C:\lab\..., UTF-8, '#' begins a comment line.
#pragma once
#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

namespace standin
{
struct Line
{
    int number;  // from 1
    std::wstring text;
};

// All lines without blank ones and comments, blanks at both ends removed. Empty when the file cannot be read.
std::vector<Line> ReadLines(const wchar_t* path);

// Replaces the file with these lines.
void WriteLines(const wchar_t* path, const std::vector<std::wstring>& lines);

// A file that grows line by line. Each line is one write at the end of the file, so several threads, DLLs and processes
// can share it. It stays open until the process ends: reading a large INF makes ten thousands of lines.
class Journal
{
public:
    explicit Journal(const wchar_t* path);
    void Append(const std::wstring& line);

private:
    HANDLE file_;
};

std::string ToUtf8(std::wstring_view text);
std::wstring FromUtf8(std::string_view bytes);
std::wstring Trim(std::wstring_view text);
std::wstring Lower(std::wstring_view text);  // ASCII letters only
bool StartsWith(std::wstring_view text, std::wstring_view start);
std::wstring Hex(unsigned long long value);

// In double quotes, a quote inside doubled, control characters as their pictures (U+2400 and up): always one line.
std::wstring Quoted(std::wstring_view text);
std::wstring Quoted(const wchar_t* text);  // null: (null)

// "12", "-1", "0x80004005", whole text; negative numbers come as their two's complement.
bool ParseNumber(std::wstring_view text, unsigned long long& value);

// \n \r \t \\ \" become the characters they stand for.
std::wstring Unescape(std::wstring_view text);
}  // namespace standin
