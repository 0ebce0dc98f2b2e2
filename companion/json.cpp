#include "companion/json.h"

#include <cstdio>
#include <iterator>

namespace repair
{
std::string JsonText(std::string_view text)
{
    std::string quoted = "\"";
    for (const char c : text)
    {
        const auto code = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
        {
            quoted.push_back('\\');
            quoted.push_back(c);
        }
        else if (code < 0x20 || code == 0x7F)
        {
            char escape[8] = {};
            std::snprintf(escape, std::size(escape), "\\u%04x", unsigned{code});
            quoted.append(escape);
        }
        else
        {
            quoted.push_back(c);
        }
    }
    return quoted + "\"";
}

JsonObject& JsonObject::AddRaw(std::string_view name, std::string_view value)
{
    if (!members_.empty())
    {
        members_ += ",";
    }
    members_ += JsonText(name);
    members_ += ":";
    members_ += value;
    return *this;
}

JsonObject& JsonObject::Add(std::string_view name, std::string_view text)
{
    return AddRaw(name, JsonText(text));
}

JsonObject& JsonObject::Add(std::string_view name, int number)
{
    return AddRaw(name, std::to_string(number));
}

JsonObject& JsonObject::Add(std::string_view name, std::uint64_t number)
{
    return AddRaw(name, std::to_string(number));
}

JsonObject& JsonObject::Add(std::string_view name, bool value)
{
    return AddRaw(name, value ? "true" : "false");
}

JsonObject& JsonObject::Add(std::string_view name, std::span<const std::string> texts)
{
    std::string list;
    for (const std::string& text : texts)
    {
        list += list.empty() ? "[" : ",";
        list += JsonText(text);
    }
    return AddRaw(name, list.empty() ? "[]" : list + "]");
}

JsonObject& JsonObject::AddNull(std::string_view name)
{
    return AddRaw(name, "null");
}
}  // namespace repair
