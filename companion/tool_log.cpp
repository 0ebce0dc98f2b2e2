#include "companion/tool_log.h"

#include <utility>

#include "base/log.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
std::vector<std::string>& Lines()
{
    static std::vector<std::string> lines;
    return lines;
}
}  // namespace

// Takes the place of the function in base/log_file.cpp.
void WriteLog(std::wstring_view line)
{
    Lines().push_back(ToUtf8(line));
}

std::vector<std::string> TakeToolLog()
{
    return std::exchange(Lines(), {});
}
}  // namespace repair
