// The tool's log files on this machine.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

namespace repair
{
struct LogFile
{
    std::wstring name;  // without the folder
    FILETIME written = {};
};

// The logs in a folder, the oldest first by the time in their names. Throws Failure when the folder cannot be listed;
// one that is not there has no logs.
std::vector<LogFile> ListLogs(const std::wstring& folder);

// Hands the bytes of the file to `sink`, piece by piece and `most` of them at the most, and returns how many there
// were. The file may be open elsewhere, and even grow. Throws UnreadableFile.
std::uint64_t ReadFileBytes(const std::wstring& path, const std::function<void(std::string_view)>& sink,
                            std::uint64_t most = UINT64_MAX);

// Folder and name with a backslash between them.
std::wstring JoinPath(const std::wstring& folder, const std::wstring& name);

// The last part of a path.
std::wstring FileNameOf(const std::wstring& path);
}  // namespace repair
