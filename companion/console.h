// Standard output and standard error, in UTF-8 wherever they lead.
#pragma once

#include <string_view>

namespace repair
{
// As long as it lives a console shows UTF-8; afterwards it is as it was.
class Utf8Console
{
public:
    Utf8Console();
    Utf8Console(const Utf8Console&) = delete;
    Utf8Console& operator=(const Utf8Console&) = delete;
    Utf8Console(Utf8Console&&) = delete;
    Utf8Console& operator=(Utf8Console&&) = delete;
    ~Utf8Console();

private:
    unsigned int before_;  // code page; 0 without a console
};

// The bytes as they are. Throws Failure when they cannot be written.
void WriteOutput(std::string_view utf8);

// Never fails.
void WriteError(std::string_view utf8);
}  // namespace repair
