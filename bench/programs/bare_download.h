// A download with the fewest calls of WinINet that fetch an address, into a file that is flushed and renamed at the
// end.
#pragma once

namespace bench
{
// Returns 0 when the file has its final name, otherwise the number of the step that failed.
int Download(const wchar_t* url, const wchar_t* temporary, const wchar_t* final);
}  // namespace bench
