#include "base/system_message.h"

#include "base/handles.h"

namespace repair
{
std::wstring FormatSystemMessage(DWORD code)
{
    wchar_t* text = nullptr;
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM |
                           FORMAT_MESSAGE_MAX_WIDTH_MASK,  // line breaks become blanks
                       nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    const LocalMemory owner(text);
    return length == 0 || text == nullptr ? std::wstring() : std::wstring(text, length);
}
}  // namespace repair
