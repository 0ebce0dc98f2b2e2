#include "base/log.h"

#include <cstdarg>
#include <iterator>

#include <windows.h>

#include "base/files.h"
#include "base/text.h"

namespace repair
{
namespace
{
constexpr wchar_t kLogFolder[] = L"Program Files\\Tavik\\MIM\\Log\\";

HANDLE OpenLogFile()
{
    const std::wstring folder = GetLogFolder();
    CreateDirectories(folder);
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    const std::wstring name = FormatLine(L"InstallVLTForWUDriver_%d-%d-%d_%d_%d_%d_%d.log", now.wYear, now.wMonth,
                                         now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    // Readers may look while the run goes on. An invalid handle is kept: a run without a log still does its work.
    return CreateFileW((folder + name).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Open until the process ends. An exception leaves the initialisation undone, so the next line tries again.
HANDLE LogFile()
{
    static const HANDLE file = OpenLogFile();
    return file;
}

void Write(const wchar_t* line, size_t length)
{
    const HANDLE file = LogFile();
    DWORD written = 0;
    WriteFile(file, line, static_cast<DWORD>(length * sizeof(wchar_t)), &written, nullptr);
    constexpr wchar_t kLineEnd = L'\n';
    WriteFile(file, &kLineEnd, sizeof(kLineEnd), &written, nullptr);
}
}  // namespace

std::wstring GetLogFolder()
{
    wchar_t buffer[260] = {};
    GetWindowsDirectoryW(buffer, static_cast<UINT>(std::size(buffer)));
    std::wstring root = buffer;
    const size_t backslash = root.find(L'\\');
    if (backslash != std::wstring::npos)
    {
        root.resize(backslash + 1);
    }
    return root + kLogFolder;
}

void WriteLog(const std::wstring& line)
{
    Write(line.data(), line.size());
}

void LogLine(const wchar_t* format, ...)
{
    wchar_t buffer[kLongestLine + 1];
    va_list arguments;
    va_start(arguments, format);
    const size_t length = FormatLineInto(buffer, format, arguments);
    va_end(arguments);
    Write(buffer, length);
}
}  // namespace repair
