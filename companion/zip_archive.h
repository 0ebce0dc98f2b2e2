// An archive that Explorer opens: ZIP without compression.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "companion/log_name.h"

namespace repair
{
// Where the archive goes. Both operations are false when the bytes could not be written.
class ZipTarget
{
public:
    ZipTarget() = default;
    ZipTarget(const ZipTarget&) = delete;
    ZipTarget& operator=(const ZipTarget&) = delete;
    ZipTarget(ZipTarget&&) = delete;
    ZipTarget& operator=(ZipTarget&&) = delete;
    virtual ~ZipTarget() = default;

    virtual bool Append(std::string_view bytes) = 0;
    // Replaces bytes that were appended before.
    virtual bool Patch(std::uint64_t offset, std::string_view bytes) = 0;
};

// One file after the other: Begin, any number of Write, End. The archive stays below 4 GiB and 65,535 files, where
// every program can read it. Every operation is false when that limit is reached or the target fails, and from then on.
class ZipArchive
{
public:
    static constexpr std::uint64_t kLargest = 0xFFFF'FFFE;
    static constexpr size_t kMostFiles = 0xFFFE;

    explicit ZipArchive(ZipTarget& target, std::uint64_t largest = kLargest) : target_(target), largest_(largest) {}

    // `name`: UTF-8, folders with "/". The archive knows times from 1980 to 2107 and even seconds.
    bool Begin(std::string name, const LocalTime& time);
    bool Write(std::string_view bytes);
    bool End();

    // The directory; the archive is complete.
    bool Finish();

private:
    struct Entry
    {
        std::string name;
        std::uint16_t time = 0;
        std::uint16_t date = 0;
        std::uint32_t checksum = 0;
        std::uint64_t size = 0;
        std::uint64_t offset = 0;
    };

    bool Append(std::string_view bytes);

    ZipTarget& target_;
    std::uint64_t largest_;
    std::uint64_t written_ = 0;
    std::uint64_t directory_ = 0;  // bytes that it will need
    std::vector<Entry> entries_;
    bool failed_ = false;
};
}  // namespace repair
