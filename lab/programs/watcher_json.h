// Just enough to write the watcher's report.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace watcher
{
std::string JsonText(std::wstring_view text);  // quoted, UTF-8

// One object or list; Text() closes it.
class Json
{
public:
    Json& Add(std::string_view name, std::wstring_view value);
    Json& Add(std::string_view name, long long value);
    Json& AddFlag(std::string_view name, bool value);
    Json& AddRaw(std::string_view name, const std::string& json);
    std::string Text() const { return "{" + body_ + "}"; }

private:
    std::string body_;
};

std::string JsonList(const std::vector<std::string>& items);
}  // namespace watcher
