// The same WinINet and file calls as the tool's download, one after the other, and nothing else.
#pragma once

namespace bench
{
// Returns 0 when the file has its final name, else the number of the step that failed.
int Download(const wchar_t* url, const wchar_t* temporary, const wchar_t* final);
}  // namespace bench
