// A file that appears only once it is complete.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/handles.h"

namespace repair
{
// Writes under another name in the same folder until Keep. Every operation throws Failure if it fails.
class OutputFile
{
public:
    // An existing file is replaced only if that is allowed.
    explicit OutputFile(std::wstring path, bool mayReplace = true);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    OutputFile(OutputFile&&) = delete;
    OutputFile& operator=(OutputFile&&) = delete;
    // Removes the file unless it was kept.
    ~OutputFile();

    void Append(std::string_view bytes);
    // Replaces bytes that were written before.
    void Patch(std::uint64_t offset, std::string_view bytes);
    // Renames the file to its final name.
    void Keep();

private:
    void Move(std::uint64_t offset, unsigned long from);

    std::wstring path_;
    bool mayReplace_;
    std::wstring partPath_;
    FileHandle file_;
};
}  // namespace repair
