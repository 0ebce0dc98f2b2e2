// Lines of the log as Microsoft's log viewers CMTrace and OneTrace read them.
#pragma once

#include <string>
#include <string_view>

#include "companion/log_name.h"

namespace repair
{
enum class Severity
{
    Information = 1,  // the numbers are those of the format
    Warning = 2,
    Error = 3,
};

// What the line says about the run: a failure, something that needs attention, or neither.
Severity SeverityOf(std::string_view line);

// One line without its end. The log knows only when the run began, so every line has that time; which offset from UTC
// it had is not known either, the format wants one and gets +000.
std::string CmTraceLine(std::string_view line, const LocalTime& began);
}  // namespace repair
