// Names of the tool's log files, which tell when a run began.
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

    // The analyser takes what the compiler writes for a number that should be a pointer.
    friend auto operator<=>(const LocalTime&, const LocalTime&) = default;  // NOLINT(modernize-use-nullptr)
};

// The local time in "InstallVLTForWUDriver_2026-11-6_4_7_31_15.log"; something may stand before and behind, as in the
// names of copies. None when the name has no such time.
std::optional<LocalTime> ParseLogName(std::string_view fileName);

// 2026-11-06T04:07:31.015
std::string FormatLocalTime(const LocalTime& time);
}  // namespace repair
