// The standard output of a program without a console.
#pragma once

#include <string>

namespace repair
{
// Writes the text without a line end to the standard output that the caller has redirected to a file or a pipe, in the
// system's code page. A character that the code page lacks becomes "?"; the library's wide stream would lose it and the
// rest of the text. Does nothing without a standard output. Logs nothing.
void WriteStandardOutput(const std::wstring& text);
}  // namespace repair
