#include "companion/zip_archive.h"

#include <algorithm>
#include <array>
#include <utility>

namespace repair
{
namespace
{
// Sizes and marks of the format.
constexpr std::uint32_t kLocalHeader = 0x04034B50;
constexpr std::uint32_t kDirectoryEntry = 0x02014B50;
constexpr std::uint32_t kDirectoryEnd = 0x06054B50;
constexpr std::uint16_t kVersion = 20;  // 2.0, what folders and plain files need
constexpr std::uint16_t kNamesAreUtf8 = 0x0800;
constexpr size_t kDirectoryEntryBytes = 46;
constexpr size_t kDirectoryEndBytes = 22;
constexpr std::uint64_t kChecksumAt = 14;  // in the local header; both sizes follow

constexpr std::array<std::uint32_t, 256> MakeChecksumTable()
{
    std::array<std::uint32_t, 256> table = {};
    for (std::uint32_t i = 0; i < table.size(); ++i)
    {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
        {
            value = (value & 1) != 0 ? value >> 1 ^ 0xEDB88320 : value >> 1;
        }
        table[i] = value;
    }
    return table;
}
constexpr std::array<std::uint32_t, 256> kChecksumTable = MakeChecksumTable();

std::uint32_t Checksum(std::uint32_t sum, std::string_view bytes)
{
    sum = ~sum;
    for (const char byte : bytes)
    {
        sum = sum >> 8 ^ kChecksumTable[(sum ^ static_cast<unsigned char>(byte)) & 0xFF];
    }
    return ~sum;
}

void Put16(std::string& text, std::uint64_t value)
{
    text.push_back(static_cast<char>(value & 0xFF));
    text.push_back(static_cast<char>(value >> 8 & 0xFF));
}

void Put32(std::string& text, std::uint64_t value)
{
    Put16(text, value & 0xFFFF);
    Put16(text, value >> 16);
}
}  // namespace

bool ZipArchive::Append(std::string_view bytes)
{
    if (failed_ || written_ + bytes.size() + directory_ + kDirectoryEndBytes > largest_ || !target_.Append(bytes))
    {
        failed_ = true;
        return false;
    }
    written_ += bytes.size();
    return true;
}

bool ZipArchive::Begin(std::string name, const LocalTime& time)
{
    if (entries_.size() >= kMostFiles)
    {
        failed_ = true;
        return false;
    }
    Entry entry;
    entry.time = static_cast<std::uint16_t>(time.hour << 11 | time.minute << 5 | time.second / 2);
    entry.date = static_cast<std::uint16_t>((std::clamp(time.year, 1980, 2107) - 1980) << 9 |
                                            std::max(time.month, 1) << 5 | std::max(time.day, 1));
    entry.offset = written_;
    entry.name = std::move(name);
    std::string header;
    Put32(header, kLocalHeader);
    Put16(header, kVersion);
    Put16(header, kNamesAreUtf8);
    Put16(header, 0);  // not compressed
    Put16(header, entry.time);
    Put16(header, entry.date);
    header.append(12, '\0');  // checksum and sizes are not known yet
    Put16(header, entry.name.size());
    Put16(header, 0);
    header += entry.name;
    directory_ += kDirectoryEntryBytes + entry.name.size();
    entries_.push_back(std::move(entry));
    return Append(header);
}

bool ZipArchive::Write(std::string_view bytes)
{
    Entry& entry = entries_.back();
    entry.checksum = Checksum(entry.checksum, bytes);
    entry.size += bytes.size();
    return Append(bytes);
}

bool ZipArchive::End()
{
    const Entry& entry = entries_.back();
    std::string sizes;
    Put32(sizes, entry.checksum);
    Put32(sizes, entry.size);
    Put32(sizes, entry.size);
    failed_ = failed_ || !target_.Patch(entry.offset + kChecksumAt, sizes);
    return !failed_;
}

bool ZipArchive::Finish()
{
    const std::uint64_t start = written_;
    std::string directory;
    for (const Entry& entry : entries_)
    {
        Put32(directory, kDirectoryEntry);
        Put16(directory, kVersion);  // made by: attributes as those of DOS
        Put16(directory, kVersion);
        Put16(directory, kNamesAreUtf8);
        Put16(directory, 0);
        Put16(directory, entry.time);
        Put16(directory, entry.date);
        Put32(directory, entry.checksum);
        Put32(directory, entry.size);
        Put32(directory, entry.size);
        Put16(directory, entry.name.size());
        directory.append(12, '\0');  // no extra field, comment, second disk, attributes
        Put32(directory, entry.offset);
        directory += entry.name;
    }
    const size_t bytes = directory.size();
    Put32(directory, kDirectoryEnd);
    Put32(directory, 0);  // one disk
    Put16(directory, entries_.size());
    Put16(directory, entries_.size());
    Put32(directory, bytes);
    Put32(directory, start);
    Put16(directory, 0);
    directory_ = 0;  // here it is
    failed_ = failed_ || written_ + directory.size() > largest_ || !target_.Append(directory);
    return !failed_;
}
}  // namespace repair
