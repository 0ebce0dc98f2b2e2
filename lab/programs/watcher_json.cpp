#include "watcher_json.h"

#include <windows.h>

#include <cstdio>

namespace watcher
{
std::string JsonText(std::wstring_view text)
{
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(), size, nullptr, nullptr);
    std::string quoted = "\"";
    for (char c : narrow)
    {
        if (c == '"' || c == '\\')
            quoted += '\\';
        if (static_cast<unsigned char>(c) < 0x20)
        {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            quoted += escape;
        }
        else
            quoted += c;
    }
    quoted += '"';
    return quoted;
}

Json& Json::AddRaw(std::string_view name, const std::string& json)
{
    if (!body_.empty())
        body_ += ", ";
    body_ += '"';
    body_ += name;
    body_ += "\": ";
    body_ += json;
    return *this;
}

Json& Json::Add(std::string_view name, std::wstring_view value)
{
    return AddRaw(name, JsonText(value));
}

Json& Json::Add(std::string_view name, long long value)
{
    return AddRaw(name, std::to_string(value));
}

Json& Json::AddFlag(std::string_view name, bool value)
{
    return AddRaw(name, value ? "true" : "false");
}

std::string JsonList(const std::vector<std::string>& items)
{
    std::string body;
    for (const std::string& item : items)
        body += (body.empty() ? "\n  " : ",\n  ") + item;
    return "[" + body + "]";
}
}  // namespace watcher
