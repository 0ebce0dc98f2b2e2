// The findings for people (table) and for programs (JSON). Both are UTF-8.
#pragma once

#include <string>
#include <vector>

#include "windows_check/runner.h"

namespace windows_check
{
std::string Table(const std::vector<Finding>& findings);

// Without names of users and computers.
std::string Json(const std::vector<Finding>& findings);

int Count(const std::vector<Finding>& findings, Verdict verdict);
}  // namespace windows_check
