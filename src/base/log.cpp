#include "base/log.h"

#include <cstdarg>
#include <cwchar>
#include <iterator>

#include <windows.h>

namespace repair
{
namespace
{
constexpr wchar_t kLogFolder[] = L"Program Files\\Tavik\\MIM\\Log\\";
constexpr size_t kLongestLine = 1023;  // in UTF-16 units
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
