#include "companion/arguments.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

#include "companion/failure.h"
#include "companion/wide_text.h"

namespace repair
{
Arguments::Arguments(std::vector<std::wstring> arguments) : left_(std::move(arguments))
{
    const auto mark = std::ranges::find(left_, L"--");
    if (mark != left_.end())
    {
        tail_.assign(mark + 1, left_.end());
        left_.erase(mark, left_.end());
    }
}

bool Arguments::TakeFlag(std::wstring_view option)
{
    return std::erase(left_, option) > 0;
}

std::optional<std::wstring> Arguments::TakeValue(std::wstring_view option)
{
    const auto found = std::ranges::find(left_, option);
    if (found == left_.end())
    {
        return std::nullopt;
    }
    if (found + 1 == left_.end())
    {
        throw UsageError(ToUtf8(option) + " wants something behind it");
    }
    std::wstring value = *(found + 1);
    left_.erase(found, found + 2);
    return value;
}

std::optional<int> Arguments::TakeNumber(std::wstring_view option)
{
    const auto value = TakeValue(option);
    if (!value)
    {
        return std::nullopt;
    }
    const std::string text = ToUtf8(*value);
    const auto number = ParseExitCode(text);
    if (!number)
    {
        throw UsageError(text + " behind " + ToUtf8(option) + " is no number");
    }
    return number;
}

std::vector<std::wstring> Arguments::TakeOperands(size_t least, size_t most)
{
    for (const std::wstring& argument : left_)
    {
        if (argument.size() > 1 && argument.starts_with(L'-'))
        {
            throw UsageError("there is no option " + ToUtf8(argument) + " here, or it stands there twice");
        }
    }
    if (left_.size() < least)
    {
        throw UsageError("something is missing");
    }
    if (left_.size() > most)
    {
        throw UsageError(ToUtf8(left_[most]) + " is one too many");
    }
    return std::exchange(left_, {});
}

std::optional<int> ParseExitCode(std::string_view text)
{
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end || number < INT32_MIN || number > UINT32_MAX)
    {
        return std::nullopt;
    }
    return static_cast<int>(static_cast<std::uint32_t>(number));
}
}  // namespace repair
