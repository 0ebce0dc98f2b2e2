// Loads every library that it is told, by its bare name and without any precaution, as a program does that has not
// thought of it. Proves that the traps of a machine are set where such a program looks.
//
// usage: careless NAME...
#include <windows.h>
#include <shellapi.h>

int main()
{
    int count = 0;
    wchar_t** const names = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; i < count; ++i)
        LoadLibraryW(names[i]);
    return 0;
}
