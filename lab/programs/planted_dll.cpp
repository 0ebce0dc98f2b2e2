// Is on a machine under the name of a Windows DLL. When loaded, it appends the line "<program>|<this file>" to
// C:\lab\planted.txt.
#include <windows.h>

#include <iterator>

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void*)
{
    if (reason != DLL_PROCESS_ATTACH)
    {
        return TRUE;
    }
    wchar_t program[MAX_PATH] = L"";
    wchar_t file[MAX_PATH] = L"";
    GetModuleFileNameW(nullptr, program, static_cast<DWORD>(std::size(program)));
    GetModuleFileNameW(module, file, static_cast<DWORD>(std::size(file)));
    wchar_t line[2 * MAX_PATH + 3] = L"";
    lstrcatW(line, program);
    lstrcatW(line, L"|");
    lstrcatW(line, file);
    lstrcatW(line, L"\n");
    const HANDLE journal = CreateFileW(L"C:\\lab\\planted.txt", FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                       nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    WriteFile(journal, line, static_cast<DWORD>(lstrlenW(line)) * static_cast<DWORD>(sizeof *line), &written, nullptr);
    CloseHandle(journal);
    return TRUE;
}
