#include "driver_store.h"

#include <cwchar>
#include <map>

#include "lab_file.h"

namespace standin
{
namespace
{
std::map<std::wstring, std::wstring> ReadPlaces()
{
    std::map<std::wstring, std::wstring> places;
    for (const Line& line : ReadLines(L"C:\\lab\\standins\\driverstore.txt"))
    {
        const std::size_t tab = line.text.find(L'\t');
        if (tab != std::wstring::npos)
        {
            places.emplace(Lower(Trim(line.text.substr(0, tab))), Trim(line.text.substr(tab + 1)));
        }
    }
    return places;
}
}  // namespace

BOOL LocateInDriverStore(const wchar_t* inf, wchar_t* buffer, DWORD size, DWORD* required)
{
    static const std::map<std::wstring, std::wstring> places = ReadPlaces();
    const std::wstring path = inf;
    const auto found = places.find(Lower(path.substr(path.find_last_of(L"\\/") + 1)));
    if (found == places.end())
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    const std::wstring& place = found->second;
    if (required != nullptr)
    {
        *required = static_cast<DWORD>(place.size() + 1);
    }
    if (place.size() >= size)
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::wcscpy(buffer, place.c_str());
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}
}  // namespace standin
