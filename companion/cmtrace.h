// Lines of the log as Microsoft's log viewers CMTrace and OneTrace read them.
#pragma once

#include <string>
#include <string_view>

#include "companion/log_name.h"

namespace repair
{
enum class Severity
{
    kInformation = 1,  // the numbers are those of the format
    kWarning = 2,
    kError = 3,
};

// Returns whether the line reports a failure, something that needs attention, or neither.
Severity SeverityOf(std::string_view line);

// Returns one line without its end. The log has no times, so every line gets the start of the run. The format requires
// an offset from UTC, which is unknown too, so it is always +000.
std::string CmTraceLine(std::string_view line, const LocalTime& began);
}  // namespace repair
