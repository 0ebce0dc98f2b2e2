// Runs the checks and compares what they have seen with the facts.
#pragma once

#include <string>
#include <vector>

#include "windows_check/check.h"
#include "windows_check/fact.h"

namespace windows_check
{
enum class Verdict
{
    kOk,
    kDiffers,
    kNotApplicable,
};
const char* NameOf(Verdict verdict);

struct Finding
{
    const Fact* fact = nullptr;
    Seen seen;
    Verdict verdict = Verdict::kDiffers;
    DWORD milliseconds = 0;
};

// Runs each check on a thread of its own, one after the other, in the order of the facts. A check that throws, crashes
// or exceeds its limit differs, and says so; its thread is left behind. `only` selects facts by id or group; empty
// selects all. No limit is longer than `longestMs`. If facts and checks do not belong together, `complaint` is set and
// nothing runs. After this, a crash of the calling thread removes what the program made and ends it with code 2.
std::vector<Finding> RunChecks(const std::vector<std::wstring>& only, DWORD longestMs, std::wstring& complaint);
}  // namespace windows_check
