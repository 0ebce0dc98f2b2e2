// A file that is either there as a whole or not at all.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/handles.h"

namespace repair
{
// Is written under another name beside the final one; every operation throws Failure when it does not go.
class OutputFile
{
public:
    explicit OutputFile(std::wstring path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    OutputFile(OutputFile&&) = delete;
    OutputFile& operator=(OutputFile&&) = delete;
    // Removes what was not kept.
    ~OutputFile();

    void Append(std::string_view bytes);
    // Replaces bytes that were appended before.
    void Patch(std::uint64_t offset, std::string_view bytes);
    // Takes the place of the file of that name, if there is one.
    void Keep();

private:
    void Move(std::uint64_t offset, unsigned long from);

    std::wstring path_;
    std::wstring partPath_;
    FileHandle file_;
};
}  // namespace repair
