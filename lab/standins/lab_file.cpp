#include "lab_file.h"

#include <algorithm>

namespace standin
{
namespace
{
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::string ReadAll(const wchar_t* path)
{
    std::string bytes;
    const HANDLE file = CreateFileW(path, GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
    {
        return bytes;
    }
    char block[4096];
    DWORD count = 0;
    while (ReadFile(file, block, sizeof block, &count, nullptr) && count > 0)
    {
        bytes.append(block, count);
    }
    CloseHandle(file);
    return bytes;
}

// An invalid handle if there is no C:\lab: the stand-in still does its work.
HANDLE OpenToWrite(const wchar_t* path, DWORD access, DWORD disposition)
{
    return CreateFileW(path, access, kShareAll, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

void Write(HANDLE file, const std::string& bytes)
{
    DWORD written = 0;
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}
}  // namespace

std::string ToUtf8(std::wstring_view text)
{
    const int size = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, bytes.data(), needed, nullptr, nullptr);
    return bytes;
}

std::wstring FromUtf8(std::string_view bytes)
{
    const int size = static_cast<int>(bytes.size());
    std::wstring text(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, bytes.data(), size, nullptr, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, bytes.data(), size, text.data(), static_cast<int>(text.size()));
    return text;
}

std::vector<Line> ReadLines(const wchar_t* path)
{
    std::string bytes = ReadAll(path);
    if (bytes.starts_with("\xEF\xBB\xBF"))
    {
        bytes.erase(0, 3);
    }
    std::vector<Line> lines;
    int number = 0;
    for (std::size_t start = 0; start < bytes.size();)
    {
        const std::size_t end = std::min(bytes.find('\n', start), bytes.size());
        std::wstring text = Trim(FromUtf8(std::string_view(bytes).substr(start, end - start)));
        ++number;
        if (!text.empty() && text.front() != L'#')
        {
            lines.push_back({number, std::move(text)});
        }
        start = end + 1;
    }
    return lines;
}

void WriteLines(const wchar_t* path, const std::vector<std::wstring>& lines)
{
    std::string bytes;
    for (const std::wstring& line : lines)
    {
        bytes += ToUtf8(line) + "\n";
    }
    const HANDLE file = OpenToWrite(path, GENERIC_WRITE, CREATE_ALWAYS);
    Write(file, bytes);
    CloseHandle(file);
}

Journal::Journal(const wchar_t* path) : file_(OpenToWrite(path, FILE_APPEND_DATA, OPEN_ALWAYS)) {}

void Journal::Append(const std::wstring& line)
{
    // Two threads that append at the same time would write over each other under Wine. The wait is limited: at the end
    // of the process the thread that holds the lock may be gone.
    static SRWLOCK lock = SRWLOCK_INIT;
    bool isOurs = TryAcquireSRWLockExclusive(&lock) != 0;
    for (int tries = 0; !isOurs && tries < 200; ++tries)
    {
        Sleep(1);
        isOurs = TryAcquireSRWLockExclusive(&lock) != 0;
    }
    Write(file_, ToUtf8(line) + "\n");
    if (isOurs)
    {
        ReleaseSRWLockExclusive(&lock);
    }
}

std::wstring Trim(std::wstring_view text)
{
    const std::size_t first = text.find_first_not_of(L" \t\r");
    if (first == std::wstring_view::npos)
    {
        return {};
    }
    return std::wstring(text.substr(first, text.find_last_not_of(L" \t\r") - first + 1));
}

std::wstring Lower(std::wstring_view text)
{
    std::wstring lower(text);
    for (wchar_t& c : lower)
    {
        if (c >= L'A' && c <= L'Z')
        {
            c = static_cast<wchar_t>(c + (L'a' - L'A'));
        }
    }
    return lower;
}

bool StartsWith(std::wstring_view text, std::wstring_view start)
{
    return text.substr(0, start.size()) == start;
}

std::wstring Hex(unsigned long long value)
{
    std::wstring digits;
    do
    {
        digits.insert(digits.begin(), L"0123456789ABCDEF"[value & 15]);
        value >>= 4;
    } while (value != 0);
    return L"0x" + digits;
}

std::wstring Quoted(std::wstring_view text)
{
    std::wstring quoted = L"\"";
    for (const wchar_t c : text)
    {
        if (c < 0x20)
        {
            quoted += static_cast<wchar_t>(0x2400 + c);
        }
        else
        {
            quoted.append(c == L'"' ? 2U : 1U, c);
        }
    }
    return quoted + L"\"";
}

std::wstring Quoted(const wchar_t* text)
{
    return text == nullptr ? std::wstring(L"(null)") : Quoted(std::wstring_view(text));
}

bool ParseNumber(std::wstring_view text, unsigned long long& value)
{
    const bool negative = StartsWith(text, L"-");
    if (negative)
    {
        text.remove_prefix(1);
    }
    const bool hex = StartsWith(text, L"0x");
    if (hex)
    {
        text.remove_prefix(2);
    }
    if (text.empty() || text.find_first_not_of(hex ? L"0123456789abcdefABCDEF" : L"0123456789") != text.npos)
    {
        return false;
    }
    value = std::wcstoull(std::wstring(text).c_str(), nullptr, hex ? 16 : 10);
    if (negative)
    {
        value = 0 - value;
    }
    return true;
}

std::wstring Unescape(std::wstring_view text)
{
    std::wstring plain;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        const wchar_t next = text[i] == L'\\' && i + 1 < text.size() ? text[i + 1] : L'\0';
        const std::size_t kind = std::wstring_view(L"nrt\\\"").find(next);
        if (next != L'\0' && kind != std::wstring_view::npos)
        {
            plain += L"\n\r\t\\\""[kind];
            ++i;
        }
        else
        {
            plain += text[i];
        }
    }
    return plain;
}
}  // namespace standin
