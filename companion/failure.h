// How a command ends early.
#pragma once

#include <stdexcept>
#include <string>

#include <windows.h>

namespace repair
{
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;  // or: what was asked for was found wanting
inline constexpr int kWrongUsage = 2;

// The command could not do its work. The text, in UTF-8, is for people.
class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A log or a list cannot be read.
class UnreadableFile : public Failure
{
public:
    using Failure::Failure;
};

// The command line makes no sense.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// "what: error 5, the system's words for it"
std::string SystemFailure(const std::string& what, DWORD error);
}  // namespace repair
