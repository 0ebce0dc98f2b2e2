// Floor of the look at the driver packages: the calls into SetupAPI alone. What else they need, the names of the INFs'
// sections, is read before the clock starts.
//   setup_floor.exe
// Prints the number of INFs that were opened and the microseconds that all calls took together.
#include "setup_calls.h"
#include "stopwatch.h"

#include <cstdio>
#include <map>

namespace
{
using Sections = std::map<std::wstring, std::vector<std::wstring>>;

Sections ReadDriverStore()
{
    const std::wstring store = L"C:\\windows\\System32\\DriverStore\\FileRepository\\";
    Sections sections;
    WIN32_FIND_DATAW folder = {};
    const HANDLE folders = FindFirstFileW((store + L"*.inf_*").c_str(), &folder);
    for (BOOL more = folders != INVALID_HANDLE_VALUE; more != 0; more = FindNextFileW(folders, &folder))
    {
        const std::wstring name = folder.cFileName;
        const std::wstring inf = store + name + L"\\" + name.substr(0, name.find(L".inf_")) + L".inf";
        sections[inf] = bench::ReadSectionNames(inf);
    }
    FindClose(folders);
    return sections;
}
}  // namespace

int wmain()
{
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    const Sections sections = ReadDriverStore();
    const double start = bench::Microseconds();
    const unsigned infs = bench::MakeSetupCalls(
        [&](const std::wstring& inf) -> const std::vector<std::wstring>& { return sections.at(inf); });
    const double end = bench::Microseconds();
    std::printf("%u %.1f\n", infs, end - start);
    return 0;
}
