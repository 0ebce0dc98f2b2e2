// The log: one UTF-16 file per run.
#pragma once

#include <string>

namespace repair
{
// Folder of the log files, with a trailing backslash, on the drive that holds the Windows directory.
std::wstring GetLogFolder();

// Appends one line: the characters of `line`, then a line feed. The first call creates the folder and the file; when
// the folder cannot be created it throws std::filesystem::filesystem_error ("create_directories"), and the next call
// tries again. A file that cannot be created or written is passed over silently.
void WriteLog(const std::wstring& line);

// FormatLine and WriteLog in one step. Throws what WriteLog throws.
void LogLine(const wchar_t* format, ...);
}  // namespace repair
