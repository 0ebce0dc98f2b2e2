#include "companion/log_name.h"

#include <charconv>
#include <cstdio>
#include <iterator>

#include "companion/ascii.h"

namespace repair
{
namespace
{
constexpr std::string_view kStem = "InstallVLTForWUDriver_";

struct Field
{
    using Number = int LocalTime::*;
    Number number;
    int smallest;
    int greatest;
    char next;  // character that must follow; 0: any
};

constexpr Field kFields[] = {
    {&LocalTime::year, 1601, 30827, '-'}, {&LocalTime::month, 1, 12, '-'},  {&LocalTime::day, 1, 31, '_'},
    {&LocalTime::hour, 0, 23, '_'},       {&LocalTime::minute, 0, 59, '_'}, {&LocalTime::second, 0, 59, '_'},
    {&LocalTime::millisecond, 0, 999, 0},
};
}  // namespace

std::optional<LocalTime> ParseLogName(std::string_view fileName)
{
    size_t at = 0;
    while (at < fileName.size() && !StartsNoCase(fileName.substr(at), kStem))
    {
        ++at;
    }
    if (at == fileName.size())
    {
        return std::nullopt;
    }
    std::string_view rest = fileName.substr(at + kStem.size());
    LocalTime time;
    for (const Field& field : kFields)
    {
        int& number = time.*field.number;
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
        rest.remove_prefix(static_cast<size_t>(end - rest.data()));
        const bool inRange = error == std::errc() && number >= field.smallest && number <= field.greatest;
        if (!inRange || (field.next != 0 && !rest.starts_with(field.next)))
        {
            return std::nullopt;
        }
        rest.remove_prefix(field.next != 0 ? 1 : 0);
    }
    return time;
}

std::string FormatLocalTime(const LocalTime& time)
{
    char text[64] = {};
    std::snprintf(text, std::size(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03d", time.year, time.month, time.day,
                  time.hour, time.minute, time.second, time.millisecond);
    return text;
}
}  // namespace repair
