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

// The first rule that matches counts.
constexpr Rule kRules[] = {
    {"Unable to find dwx2-install.exe at *", Severity::kInformation},  // then the tool downloads it
    {"Unable to find ReleaseVersion regkey for *", Severity::kWarning},
    {"Unable to get DEVPKEY_Device_ProblemCode property: *", Severity::kWarning},
    {"Unable to create VLTUWPReplaced registry key *", Severity::kWarning},
    {"Unable to *", Severity::kError},
    {"Another instance is running. Exiting.", Severity::kWarning},
    {"User does not have VLT installed. Exiting.", Severity::kWarning},
    {"Failed to get SPDRP_DRIVER for *", Severity::kWarning},
    {"Failed *", Severity::kError},
    {"Device has CM_PROB_Xxx code *", Severity::kWarning},
    {"Response code from server: 200", Severity::kInformation},
    {"Response code from server: *", Severity::kError},
    {"Error*", Severity::kError},
    {"Download failed with error code: *", Severity::kError},
    {"Launching process * failed. Error code = *", Severity::kError},
    {"Exception * when *", Severity::kWarning},
    {"Unknown expection occured when *", Severity::kWarning},
    {"\tException occured *", Severity::kError},
    {"System reboot may be required for *", Severity::kWarning},
    {"failed to install the UWP version of VLT", Severity::kError},
    {"\tResult = 0", Severity::kInformation},
    {"\tResult = 1641", Severity::kWarning},  // a restart has begun
    {"\tResult = 3010", Severity::kWarning},  // a restart is required
    {"\tResult = 3011", Severity::kWarning},  // the same
    {"\tResult = *", Severity::kError},
    {"\t Result = 0*", Severity::kInformation},
    {"\t Result = *", Severity::kWarning},  // removal of a Store package
};

constexpr std::string_view kEnd = "]LOG]!>";  // ends the message
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
    return Severity::kInformation;
}

std::string CmTraceLine(std::string_view line, const LocalTime& began)
{
    std::string text = "<![LOG[";
    text += line;
    // The format has no escapes, so a message must not contain the mark of its end.
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
