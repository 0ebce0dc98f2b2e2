// One flat JSON object in one line, as log collectors take it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace repair
{
// The text in quotes; every character that JSON or a line-oriented reader cannot take as it is, escaped. `text` is
// UTF-8.
std::string JsonText(std::string_view text);

class JsonObject
{
public:
    JsonObject& Add(std::string_view name, std::string_view text);
    JsonObject& Add(std::string_view name, const char* text) { return Add(name, std::string_view(text)); }
    JsonObject& Add(std::string_view name, int number);
    JsonObject& Add(std::string_view name, std::uint64_t number);
    JsonObject& Add(std::string_view name, bool value);
    JsonObject& Add(std::string_view name, std::span<const std::string> texts);
    JsonObject& AddNull(std::string_view name);

    // Without a line end.
    [[nodiscard]] std::string Text() const { return "{" + members_ + "}"; }

private:
    JsonObject& AddRaw(std::string_view name, std::string_view value);

    std::string members_;
};
}  // namespace repair
