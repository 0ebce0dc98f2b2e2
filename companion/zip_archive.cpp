#include "companion/zip_archive.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "companion/failure.h"

namespace repair
{
namespace
{
// Sizes and marks of the format.
constexpr std::uint32_t kLocalHeader = 0x04034B50;
constexpr std::uint32_t kDirectoryEntry = 0x02014B50;
constexpr std::uint32_t kDirectoryEnd = 0x06054B50;
constexpr std::uint16_t kVersion = 20;  // 2.0, which knows compression
constexpr std::uint16_t kNamesAreUtf8 = 0x0800;
constexpr std::uint16_t kDeflated = 8;
constexpr size_t kDirectoryEntryBytes = 46;
constexpr size_t kDirectoryEndBytes = 22;
constexpr std::uint64_t kChecksumAt = 14;  // in the local header; the packed size and the size follow
constexpr size_t kMostFiles = 0xFFFE;

constexpr int kMemoryLevel = 8;  // zlib's default
constexpr size_t kPackedBytes = 16'384;

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

std::uint32_t ToDosTime(const LocalTime& time)
{
    const int date =
        (std::clamp(time.year, 1980, 2107) - 1980) << 9 | std::max(time.month, 1) << 5 | std::max(time.day, 1);
    return static_cast<std::uint32_t>(date) << 16 |
           static_cast<std::uint32_t>(time.hour << 11 | time.minute << 5 | time.second / 2);
}

void CheckLimit(std::uint64_t value, std::uint64_t most)
{
    if (value > most)
    {
        throw Failure("the logs do not fit into an archive (4 GB): move some to another folder and use --from");
    }
}
}  // namespace

ZipArchive::ZipArchive(OutputFile& file, std::uint64_t largest) : file_(file), largest_(largest)
{
    // Negative window bits: without zlib's own header, which ZIP does not have.
    if (deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, kMemoryLevel, Z_DEFAULT_STRATEGY) != Z_OK)
    {
        throw std::bad_alloc();
    }
}

ZipArchive::~ZipArchive()
{
    deflateEnd(&stream_);
}

void ZipArchive::Append(std::string_view bytes)
{
    CheckLimit(written_ + bytes.size() + directorySize_ + kDirectoryEndBytes, largest_);
    file_.Append(bytes);
    written_ += bytes.size();
}

void ZipArchive::Compress(std::string_view bytes, int flush)
{
    std::string copy(bytes);  // zlib takes a pointer to non-const bytes
    stream_.next_in = reinterpret_cast<Bytef*>(copy.data());
    stream_.avail_in = static_cast<uInt>(copy.size());
    do
    {
        char packed[kPackedBytes];
        stream_.next_out = reinterpret_cast<Bytef*>(packed);
        stream_.avail_out = sizeof(packed);
        deflate(&stream_, flush);
        const size_t size = sizeof(packed) - stream_.avail_out;
        entries_.back().packedSize += size;
        Append({packed, size});
    } while (stream_.avail_out == 0);
}

void ZipArchive::Begin(std::string name, const LocalTime& time)
{
    CheckLimit(entries_.size() + 1, kMostFiles);
    deflateReset(&stream_);
    Entry entry;
    entry.name = std::move(name);
    entry.dosTime = ToDosTime(time);
    entry.offset = written_;
    std::string header;
    Put32(header, kLocalHeader);
    Put16(header, kVersion);
    Put16(header, kNamesAreUtf8);
    Put16(header, kDeflated);
    Put32(header, entry.dosTime);
    header.append(12, '\0');  // checksum and sizes: End writes them
    Put16(header, entry.name.size());
    Put16(header, 0);  // no extra field
    header += entry.name;
    directorySize_ += kDirectoryEntryBytes + entry.name.size();
    entries_.push_back(std::move(entry));
    Append(header);
}

void ZipArchive::Write(std::string_view bytes)
{
    Entry& entry = entries_.back();
    entry.size += bytes.size();
    CheckLimit(entry.size, largest_);
    entry.checksum =
        static_cast<std::uint32_t>(crc32_z(entry.checksum, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
    Compress(bytes, Z_NO_FLUSH);
}

void ZipArchive::End()
{
    Compress({}, Z_FINISH);
    const Entry& entry = entries_.back();
    std::string sizes;
    Put32(sizes, entry.checksum);
    Put32(sizes, entry.packedSize);
    Put32(sizes, entry.size);
    file_.Patch(entry.offset + kChecksumAt, sizes);
}

void ZipArchive::Finish()
{
    std::string directory;
    for (const Entry& entry : entries_)
    {
        Put32(directory, kDirectoryEntry);
        Put16(directory, kVersion);  // version of the writer; 0 in the upper byte: DOS attributes
        Put16(directory, kVersion);  // version that a reader needs
        Put16(directory, kNamesAreUtf8);
        Put16(directory, kDeflated);
        Put32(directory, entry.dosTime);
        Put32(directory, entry.checksum);
        Put32(directory, entry.packedSize);
        Put32(directory, entry.size);
        Put16(directory, entry.name.size());
        directory.append(12, '\0');  // no extra field, comment, second disk, attributes
        Put32(directory, entry.offset);
        directory += entry.name;
    }
    const size_t size = directory.size();
    Put32(directory, kDirectoryEnd);
    Put32(directory, 0);  // one disk
    Put16(directory, entries_.size());
    Put16(directory, entries_.size());
    Put32(directory, size);
    Put32(directory, written_);
    Put16(directory, 0);
    file_.Append(directory);  // its room is reserved
}
}  // namespace repair
