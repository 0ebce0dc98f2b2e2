#include "base/log.h"

#include <cstdarg>
#include <cwchar>
#include <iterator>
#include <utility>

#include <windows.h>

#include "base/files.h"

namespace repair
{
namespace
{
constexpr wchar_t kLogFolder[] = L"Program Files\\Tavik\\MIM\\Log\\";
constexpr size_t kLongestLine = 1023;  // in UTF-16 units

std::wstring LogFileName(const SYSTEMTIME& time)
{
    std::wstring name = L"InstallVLTForWUDriver_" + std::to_wstring(time.wYear);
    const std::pair<wchar_t, WORD> fields[] = {{L'-', time.wMonth},  {L'-', time.wDay},    {L'_', time.wHour},
                                               {L'_', time.wMinute}, {L'_', time.wSecond}, {L'_', time.wMilliseconds}};
    for (const auto& [separator, number] : fields)
    {
        name += separator + std::to_wstring(number);
    }
    return name + L".log";
}

HANDLE OpenLogFile()
{
    const std::wstring folder = GetLogFolder();
    CreateDirectories(folder);
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    // Shared for reading during the run. An invalid handle is kept: a run without a log still does its work.
    return CreateFileW((folder + LogFileName(now)).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Open until the process ends. An exception leaves the initialisation undone, so the next line tries again.
HANDLE LogFile()
{
    static const HANDLE file = OpenLogFile();
    return file;
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

void WriteLog(std::wstring_view line)
{
    const HANDLE file = LogFile();
    DWORD written = 0;
    WriteFile(file, line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written, nullptr);
    constexpr wchar_t kLineEnd = L'\n';
    WriteFile(file, &kLineEnd, sizeof(kLineEnd), &written, nullptr);
}

void LogLine(const wchar_t* format, ...)
{
    wchar_t line[kLongestLine + 1] = {};  // the last character stays NUL: a cut text comes back without a terminator
    va_list arguments;
    va_start(arguments, format);
    // The underscore name is the only one in which "%s" is wide text with every compiler we use.
    _vsnwprintf(line, kLongestLine, format, arguments);
    va_end(arguments);
    WriteLog(line);
}
}  // namespace repair
