#include "record.h"

#include <map>
#include <mutex>

#include "lab_file.h"

namespace lab
{
namespace
{
constexpr const wchar_t* kRecordPath = L"C:\\lab\\standins\\winrt-calls.txt";

standin::Journal& TheJournal()
{
    static standin::Journal& journal = *new standin::Journal(kRecordPath);
    return journal;
}

std::size_t ThreadNumber()
{
    static std::mutex mutex;
    static std::map<DWORD, std::size_t> numbers;
    const std::scoped_lock lock(mutex);
    return numbers.try_emplace(GetCurrentThreadId(), numbers.size() + 1).first->second;
}
}  // namespace

void Record(const std::wstring& text)
{
    TheJournal().Append(text + L" thread=" + std::to_wstring(ThreadNumber()));
}

HRESULT Record(const std::wstring& text, HRESULT result)
{
    Record(text + L" -> " + HresultText(result));
    return result;
}

void RecordAtEnd(const std::wstring& text)
{
    TheJournal().Append(text);
}

HRESULT UnusedSlot(const wchar_t* interfaceName, const wchar_t* method)
{
    return Record(L"unused slot " + std::wstring(interfaceName) + L"." + method, E_NOTIMPL);
}

std::wstring HresultText(HRESULT result)
{
    return standin::Hex(static_cast<ULONG>(result));
}
}  // namespace lab
