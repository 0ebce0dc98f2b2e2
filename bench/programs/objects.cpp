// Counts the window system's objects of a process, seen from another process.
//   objects.exe PROGRAM
// Prints the GDI objects in the process's own table, and the user objects of all processes together. Wine 8 does not
// count them for GetGuiResources.
#include <windows.h>

#include <tlhelp32.h>
#include <winternl.h>

#include <cstdio>
#include <cwchar>
#include <vector>

namespace
{
constexpr size_t kTableOffset = 0xF8;  // GdiSharedHandleTable in a 64-bit process's environment block
constexpr size_t kEntries = 65536;
constexpr unsigned kProbes = 2000;  // more than there are free numbers between used ones

struct Entry  // of that table
{
    ULONG64 object;
    ULONG owner;
    USHORT unique;
    UCHAR type;
    UCHAR flags;
    ULONG64 user;
};
static_assert(sizeof(Entry) == 24);

unsigned CountGdiTable(HANDLE process)
{
    PROCESS_BASIC_INFORMATION basic = {};
    if (NtQueryInformationProcess(process, ProcessBasicInformation, &basic, sizeof(basic), nullptr) != 0)
    {
        return 0;
    }
    const char* const block = reinterpret_cast<const char*>(basic.PebBaseAddress);
    const Entry* table = nullptr;
    std::vector<Entry> entries(kEntries);
    if (ReadProcessMemory(process, block + kTableOffset, &table, sizeof(table), nullptr) == 0 ||
        ReadProcessMemory(process, table, entries.data(), kEntries * sizeof(Entry), nullptr) == 0)
    {
        return 0;
    }
    unsigned count = 0;
    for (const Entry& entry : entries)
    {
        count += entry.type != 0;
    }
    return count;
}

// The system gives out the lowest free number first, so the highest of many new ones shows how many are in use.
unsigned CountUserObjects()
{
    std::vector<HMENU> menus(kProbes);
    unsigned highest = 0;
    for (HMENU& menu : menus)
    {
        menu = CreatePopupMenu();
        const unsigned number = static_cast<unsigned>(reinterpret_cast<ULONG_PTR>(menu) & 0xFFFF);
        highest = number > highest ? number : highest;
    }
    for (const HMENU menu : menus)
    {
        DestroyMenu(menu);
    }
    return highest;
}

// The process of that program file; 0 when there is none.
DWORD FindProcess(const wchar_t* program)
{
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    for (BOOL more = Process32FirstW(snapshot, &entry); more != 0; more = Process32NextW(snapshot, &entry))
    {
        if (_wcsicmp(entry.szExeFile, program) == 0)
        {
            return entry.th32ProcessID;
        }
    }
    return 0;
}
}  // namespace

int wmain(int count, wchar_t** arguments)
{
    const DWORD id = count == 2 ? FindProcess(arguments[1]) : 0;
    const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id);
    if (process == nullptr)
    {
        return 1;
    }
    std::printf("%u %u\n", CountGdiTable(process), CountUserObjects());
    CloseHandle(process);
    return 0;
}
