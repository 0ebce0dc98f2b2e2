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
    DWORD error = 0;        // of WinINet; 0 if there is an answer
    const char* step = "";  // what failed: "address", "connection" or "request"
    DWORD status = 0;
    std::string location;               // target of a redirect
    std::optional<std::uint64_t> size;  // as announced
    bool beginsLikeProgram = false;     // "MZ"
};

// Sends one GET with the tool's own settings (proxy of the account, TLS by the port alone, time limits), but does not
// follow redirects. Reads two bytes of the body.
ServerAnswer AskServer(const std::wstring& url);
}  // namespace repair
