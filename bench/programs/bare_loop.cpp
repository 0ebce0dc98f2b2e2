// Floor of a download.
//   bare_loop.exe URL TEMPORARY FINAL
// Exit codes: 0 the file is there, else the number of the step that failed.
#include "bare_download.h"

int wmain(int count, wchar_t** arguments)
{
    return count == 4 ? bench::Download(arguments[1], arguments[2], arguments[3]) : 99;
}
