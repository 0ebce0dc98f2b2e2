// The log's file. The companion has a WriteLog of its own and so leaves this file out of its program.
#include <utility>

#include <windows.h>

#include "base/files.h"
#include "base/log.h"

namespace repair
{
namespace
{
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

void WriteLog(std::wstring_view line)
{
    const HANDLE file = LogFile();
    DWORD written = 0;
    WriteFile(file, line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written, nullptr);
    constexpr wchar_t kLineEnd = L'\n';
    WriteFile(file, &kLineEnd, sizeof(kLineEnd), &written, nullptr);
}
}  // namespace repair
