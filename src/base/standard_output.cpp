#include "base/standard_output.h"

#include <windows.h>

namespace repair
{
void WriteStandardOutput(const std::wstring& text)
{
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (output == nullptr || output == INVALID_HANDLE_VALUE || text.empty())
    {
        return;
    }
    const int length = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, 0, text.data(), length, narrow.data(), size, nullptr, nullptr);
    DWORD written = 0;
    WriteFile(output, narrow.data(), static_cast<DWORD>(narrow.size()), &written, nullptr);
}
}  // namespace repair
