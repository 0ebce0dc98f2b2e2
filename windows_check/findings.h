// Runs the checks, compares what they have seen with the facts, and reports it.
#pragma once

#include <string>
#include <vector>

#include "windows_check/check.h"

namespace windows_check
{
inline constexpr int kNotMade = 2;  // exit code: the checks could not be made

enum class Verdict
{
    kOk,
    kDiffers,
    kNotApplicable,
};

struct Finding
{
    const Fact* fact = nullptr;
    Seen seen;
    Verdict verdict = Verdict::kDiffers;
    DWORD milliseconds = 0;
};

// Runs each check on a thread of its own, one after the other, in the order of the facts. A check that throws, crashes
// or exceeds its limit is reported as "differs", with the reason; its thread keeps running. `only` selects facts by id
// or group; empty selects all. No limit is longer than `longestMs`. After this, a crash of the calling thread removes
// what the program made and ends it with kNotMade.
std::vector<Finding> RunChecks(const std::vector<std::wstring>& only, DWORD longestMs);

int Count(const std::vector<Finding>& findings, Verdict verdict);

// The findings for people and, as UTF-8, for programs. Both are without names of users and computers.
std::wstring Table(const std::vector<Finding>& findings);
std::string Json(const std::vector<Finding>& findings);
}  // namespace windows_check
