// Keeps the desktop open. Wine ends its desktop a second after the last program with a window, and the next one would
// pay for a new one; on Windows it is always there. Runs until it is ended.
#include <windows.h>

int wmain()
{
    const HWND window = CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    if (window == nullptr)
    {
        return 1;
    }
    MSG message = {};
    while (GetMessageW(&message, nullptr, 0, 0) > 0)
    {
        DispatchMessageW(&message);
    }
    return 0;
}
