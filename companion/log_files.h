// Log files on this machine: which there are, their lines, and their times.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include "companion/failure.h"
#include "companion/line_reader.h"
#include "companion/log_name.h"

namespace repair
{
// Returns the names of the logs in a folder, the oldest first by the time in their names; none if the folder does not
// exist. Throws Failure if the folder cannot be listed.
std::vector<std::wstring> ListLogs(const std::wstring& folder);

// Returns the files that a path with * or ? in its last part names, in the order of ListLogs, and any other path
// unchanged. Throws Failure if no file matches.
std::vector<std::wstring> ExpandWildcards(const std::wstring& path);

bool IsFolder(const std::wstring& path);

// Names the file, and where the tool's logs are.
NotALog MakeNotALog(const std::wstring& path);

// Passes at most `most` bytes of the file to `sink`, piece by piece, and returns how many there were. Other programs
// may write to the file meanwhile. Throws UnreadableFile.
std::uint64_t ReadFileBytes(const std::wstring& path, const std::function<void(std::string_view)>& sink,
                            std::uint64_t most = UINT64_MAX);

// The same, line by line.
Damage ReadLines(const std::wstring& path, const std::function<void(const Line&)>& sink,
                 std::uint64_t most = UINT64_MAX);

// Writes the log as UTF-8 text to `write`, in large pieces. `edit` makes the text of each line, without its end; the
// lines get Windows line ends where the log has an end of line.
Damage WriteAsText(const std::wstring& path, const std::function<std::string(const Line&)>& edit,
                   const std::function<void(std::string_view)>& write, std::uint64_t most = UINT64_MAX);

// In local time; all zero if the file cannot be read.
LocalTime LastWritten(const std::wstring& path);
LocalTime Now();

// Returns the seconds from the start of a run, which is in the log's name, to the last line; nothing if the times do
// not fit together, because the log was copied.
std::optional<int> DurationOfRun(const std::wstring& path);

// Joins folder and name with a backslash.
std::wstring JoinPath(const std::wstring& folder, const std::wstring& name);

// Returns the last part of a path.
std::wstring FileNameOf(const std::wstring& path);
}  // namespace repair
