// Floor of the start: a windowed program that writes one file and ends. It needs no library but the system's kernel and
// the C library.
//   bare_gui.exe FILE
#include <windows.h>

int wmain(int count, wchar_t** arguments)
{
    if (count != 2)
    {
        return 2;
    }
    const HANDLE file = CreateFileW(arguments[1], GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    constexpr wchar_t kLine[] = L"Launched\n";
    DWORD written = 0;
    return WriteFile(file, kLine, sizeof(kLine) - sizeof(wchar_t), &written, nullptr) != 0 ? 0 : 1;
}
