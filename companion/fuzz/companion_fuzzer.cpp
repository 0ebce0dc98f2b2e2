// libFuzzer target: how the companion reads logs and values, built for this host by scripts/fuzz.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "companion/log_name.h"
#include "companion/pattern.h"
#include "companion/server_value.h"
#include "companion/tests/log_checks.h"

namespace
{
[[noreturn]] void Report(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

// The same rules in the simplest way, which is too slow for long texts.
bool MatchesSlowly(std::string_view pattern, std::string_view line)
{
    if (pattern.empty())
    {
        return line.empty();
    }
    if (pattern.front() == '*')
    {
        return MatchesSlowly(pattern.substr(1), line) || (!line.empty() && MatchesSlowly(pattern, line.substr(1)));
    }
    return !line.empty() && pattern.front() == line.front() && MatchesSlowly(pattern.substr(1), line.substr(1));
}

void CheckPattern(std::string_view text)
{
    constexpr size_t kLongest = 24;
    const std::string_view pattern = text.substr(0, std::min(text.find('\n'), kLongest));
    const std::string_view line = text.substr(std::min(text.size(), pattern.size() + 1)).substr(0, kLongest);
    const bool matches = repair::MatchLine(pattern, line).matches;
    if (pattern.find('<') == std::string_view::npos && matches != MatchesSlowly(pattern, line))
    {
        Report("pattern \"" + std::string(pattern) + "\" and line \"" + std::string(line) + "\"");
    }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
    {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    switch (data[0] % 8)
    {
        case 0:
            CheckPattern(bytes);
            break;
        case 1:
            repair::CheckServerValue(bytes, "24.20");
            repair::ParseLogName(bytes);
            break;
        default:
            if (const std::string wrong = repair::support::WrongWith(bytes, data[1]); !wrong.empty())
            {
                Report(wrong);
            }
    }
    return 0;
}
