#include "companion/cmtrace.h"

#include <cstdio>
#include <iterator>

#include "companion/pattern.h"

namespace repair
{
namespace
{
struct Rule
{
    std::string_view pattern;
    Severity severity;
};

// The first that matches counts. Wording and order are the tool's.
constexpr Rule kRules[] = {
    {"Unable to find dwx2-install.exe at *", Severity::Information},  // it is downloaded then
    {"Unable to find ReleaseVersion regkey for *", Severity::Warning},
    {"Unable to get DEVPKEY_Device_ProblemCode property: *", Severity::Warning},
    {"Unable to create VLTUWPReplaced registry key *", Severity::Warning},
    {"Unable to *", Severity::Error},
    {"Another instance is running. Exiting.", Severity::Warning},
    {"User does not have VLT installed. Exiting.", Severity::Warning},
    {"Failed to get SPDRP_DRIVER for *", Severity::Warning},
    {"Failed *", Severity::Error},
    {"Device has CM_PROB_Xxx code *", Severity::Warning},
    {"Response code from server: 200", Severity::Information},
    {"Response code from server: *", Severity::Error},
    {"Error*", Severity::Error},
    {"Download failed with error code: *", Severity::Error},
    {"Launching process * failed. Error code = *", Severity::Error},
    {"Exception * when *", Severity::Warning},
    {"Unknown expection occured when *", Severity::Warning},
    {"\tException occured *", Severity::Error},
    {"System reboot may be required for *", Severity::Warning},
    {"failed to install the UWP version of VLT", Severity::Error},
    {"\tResult = 0", Severity::Information},
    {"\tResult = 1641", Severity::Warning},  // a restart has begun
    {"\tResult = 3010", Severity::Warning},  // a restart is wanted
    {"\tResult = 3011", Severity::Warning},  // the same
    {"\tResult = *", Severity::Error},
    {"\t Result = 0*", Severity::Information},
    {"\t Result = *", Severity::Warning},  // of the removal of a Store package
};

constexpr std::string_view kEnd = "]LOG]!>";  // of the message, in the format
}  // namespace

Severity SeverityOf(std::string_view line)
{
    for (const Rule& rule : kRules)
    {
        if (MatchLine(rule.pattern, line).matches)
        {
            return rule.severity;
        }
    }
    return Severity::Information;
}

std::string CmTraceLine(std::string_view line, const LocalTime& began)
{
    std::string text = "<![LOG[";
    text += line;
    // The format has no escapes: the mark of the end must not stand in a message.
    for (size_t at = text.find(kEnd); at != std::string::npos; at = text.find(kEnd, at))
    {
        text.insert(at + kEnd.size() - 2, 1, ' ');
    }
    char rest[200] = {};
    std::snprintf(rest, std::size(rest),
                  "%s<time=\"%02d:%02d:%02d.%03d+000\" date=\"%02d-%02d-%04d\" component=\"TavikCompatibilityTool\" "
                  "context=\"\" type=\"%d\" thread=\"0\" file=\"\">",
                  kEnd.data(), began.hour, began.minute, began.second, began.millisecond, began.month, began.day,
                  began.year, static_cast<int>(SeverityOf(line)));
    return text + rest;
}
}  // namespace repair
