// Asks a download server the way the tool does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <windows.h>

namespace repair
{
struct ServerAnswer
{
    DWORD error = 0;        // of WinINet; 0 when there is an answer
    const char* step = "";  // what failed then: "address", "connection" or "request"
    DWORD status = 0;
    std::string location;               // where a redirect leads
    std::optional<std::uint64_t> size;  // as announced
    bool beginsLikeProgram = false;     // "MZ"
};

// One GET with the tool's own settings (proxy of the account, TLS decided by the port alone, time limits), except that
// redirects are not followed. Reads two bytes of the body.
ServerAnswer AskServer(const std::wstring& url);
}  // namespace repair
