#include "companion/output_file.h"

#include <utility>

#include "companion/failure.h"
#include "companion/unicode.h"

namespace repair
{
OutputFile::OutputFile(std::wstring path, bool mayReplace)
    : path_(std::move(path)),
      mayReplace_(mayReplace),
      partPath_(path_ + L".part"),
      file_(CreateFileW(partPath_.c_str(), GENERIC_WRITE, 0, nullptr, mayReplace ? CREATE_ALWAYS : CREATE_NEW,
                        FILE_ATTRIBUTE_NORMAL, nullptr))
{
    if (!file_)
    {
        const DWORD error = GetLastError();
        throw Failure(SystemFailure(ToUtf8(partPath_) + " cannot be created", error));
    }
    if (!mayReplace_ && GetFileAttributesW(path_.c_str()) != INVALID_FILE_ATTRIBUTES)
    {
        file_.Close();
        DeleteFileW(partPath_.c_str());
        throw Failure(ToUtf8(path_) + " exists: name another file, or give --force to replace it");
    }
}

OutputFile::~OutputFile()
{
    if (file_)
    {
        file_.Close();
        DeleteFileW(partPath_.c_str());
    }
}

void OutputFile::Append(std::string_view bytes)
{
    DWORD written = 0;
    if (WriteFile(file_.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) == 0 ||
        written < bytes.size())
    {
        throw Failure(SystemFailure(ToUtf8(partPath_) + " cannot be written", GetLastError()));
    }
}

void OutputFile::Move(std::uint64_t offset, unsigned long from)
{
    LARGE_INTEGER distance = {};
    distance.QuadPart = static_cast<LONGLONG>(offset);
    if (SetFilePointerEx(file_.Get(), distance, nullptr, from) == 0)
    {
        throw Failure(SystemFailure(ToUtf8(partPath_) + " cannot be written", GetLastError()));
    }
}

void OutputFile::Patch(std::uint64_t offset, std::string_view bytes)
{
    Move(offset, FILE_BEGIN);
    Append(bytes);
    Move(0, FILE_END);
}

void OutputFile::Keep()
{
    file_.Close();
    if (MoveFileExW(partPath_.c_str(), path_.c_str(), mayReplace_ ? MOVEFILE_REPLACE_EXISTING : 0U) == 0)
    {
        const DWORD error = GetLastError();
        DeleteFileW(partPath_.c_str());
        throw Failure(SystemFailure(ToUtf8(path_) + " cannot be replaced", error));
    }
}
}  // namespace repair
