// Names of the tool's log files, which contain the start time of a run.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace repair
{
struct LocalTime
{
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;

    // clang-tidy takes a zero in the generated code for a pointer.
    friend auto operator<=>(const LocalTime&, const LocalTime&) = default;  // NOLINT(modernize-use-nullptr)
};

// Returns the local time in "InstallVLTForWUDriver_2026-11-6_4_7_31_15.log"; names of copies may have more text before
// and after it. Returns nothing if the name contains no such time.
std::optional<LocalTime> ParseLogName(std::string_view fileName);

// Returns "2026-11-06T04:07:31.015".
std::string FormatLocalTime(const LocalTime& time);
}  // namespace repair
