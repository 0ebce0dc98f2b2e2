// The standard output of a program without a console.
#pragma once

#include <string>

namespace repair
{
// Writes the text as it is, without a line end, to the standard output, which a caller has redirected to a file or a
// pipe; in the system's code page, a character that it lacks as "?" (the library's wide stream
// would lose it and all that follows). Without a standard output nothing happens. Never
// logs.
void WriteStandardOutput(const std::wstring& text);
}  // namespace repair
