// A compressed ZIP archive that Explorer opens.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <zlib.h>

#include "companion/log_name.h"
#include "companion/output_file.h"

namespace repair
{
// For each file: Begin, any number of Write, End. The archive and each file stay below 4 GiB, and there are at most
// 65,534 files: every program can read that. Each operation throws Failure if a limit is exceeded or writing fails.
class ZipArchive
{
public:
    static constexpr std::uint64_t kLargest = 0xFFFF'FFFE;

    explicit ZipArchive(OutputFile& file, std::uint64_t largest = kLargest);
    ZipArchive(const ZipArchive&) = delete;
    ZipArchive& operator=(const ZipArchive&) = delete;
    ZipArchive(ZipArchive&&) = delete;
    ZipArchive& operator=(ZipArchive&&) = delete;
    ~ZipArchive();

    // `name`: UTF-8, folders with "/". The archive knows times from 1980 to 2107 and even seconds.
    void Begin(std::string name, const LocalTime& time);
    void Write(std::string_view bytes);
    void End();

    // Writes the directory, which completes the archive.
    void Finish();

private:
    struct Entry
    {
        std::string name;
        std::uint32_t dosTime = 0;  // date in the upper half
        std::uint64_t offset = 0;
        std::uint32_t checksum = 0;
        std::uint64_t packedSize = 0;
        std::uint64_t size = 0;
    };

    void Append(std::string_view bytes);
    void Compress(std::string_view bytes, int flush);

    OutputFile& file_;
    std::uint64_t largest_;
    z_stream stream_ = {};
    std::uint64_t written_ = 0;
    std::uint64_t directorySize_ = 0;  // reserved at the end
    std::vector<Entry> entries_;
};
}  // namespace repair
