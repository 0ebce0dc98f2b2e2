// Loads every library named on its command line by its bare name, without any precaution. Shows that the planted DLLs
// of a machine lie where such a program finds them.
//
// usage: load_by_name NAME...
#include <windows.h>
#include <shellapi.h>

int main()
{
    int count = 0;
    wchar_t** const names = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; i < count; ++i)
    {
        LoadLibraryW(names[i]);
    }
    return 0;
}
