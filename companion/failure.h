// Exit codes, and the exceptions that end a command early.
#pragma once

#include <stdexcept>
#include <string>

#include <windows.h>

namespace repair
{
inline constexpr int kDone = 0;
inline constexpr int kFailed = 1;  // also: a check found an error
inline constexpr int kWrongUsage = 2;
inline constexpr int kNotALog = 3;  // explain: the file is no log of the tool
// status:
inline constexpr int kStatusDue = 4;
inline constexpr int kStatusRecovery = 5;
inline constexpr int kStatusNotInstalled = 6;
inline constexpr int kStatusNoAdapter = 7;
inline constexpr int kStatusNoUsableDriver = 8;

// The command could not do its work. The text is a message for people, in UTF-8.
class Failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A log or a list of logs cannot be read.
class UnreadableFile : public Failure
{
public:
    using Failure::Failure;
};

// A file that is no log of the tool.
class NotALog : public Failure
{
public:
    using Failure::Failure;
};

// Returns "what: error 5, <the code in words, with the remedy; or the text of Windows for it>".
std::string SystemFailure(const std::string& what, DWORD error);
}  // namespace repair
