// The log: one UTF-16 file per run.
#pragma once

#include <string>
#include <string_view>

namespace repair
{
// Folder of the log files, with a trailing backslash, on the drive that holds the Windows directory.
std::wstring GetLogFolder();

// Appends one finished line: its characters, then a line feed. The first call creates the folder and the file; a link
// that leads nowhere in the place of the folder, or of one above it, is replaced by a folder. Throws
// std::filesystem::filesystem_error ("create_directories") if the folder cannot be created; the next call tries again.
// A file that cannot be created or written is ignored.
void WriteLog(std::wstring_view line);

// Formats a line and writes it. `format` is a literal of the Windows C runtime's wide printf family: "%s" and "%ls"
// take wide text, "%hs" narrow text (each byte becomes one character). The line is cut after 1023 characters and at the
// first NUL; a format that the runtime rejects gives the text before the fault. Throws what WriteLog throws.
void LogLine(const wchar_t* format, ...);
}  // namespace repair
