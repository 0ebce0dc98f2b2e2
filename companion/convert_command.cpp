// convert: a log as a text file that every program reads.
#include <utility>

#include <windows.h>

#include "base/handles.h"
#include "companion/arguments.h"
#include "companion/cmtrace.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/failure.h"
#include "companion/line_reader.h"
#include "companion/log_files.h"
#include "companion/output_file.h"
#include "companion/wide_text.h"

namespace repair
{
namespace
{
constexpr size_t kBufferBytes = 65'536;

LocalTime LastWritten(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    FILETIME local = {};
    SYSTEMTIME time = {};
    GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
    FileTimeToLocalFileTime(&data.ftLastWriteTime, &local);
    FileTimeToSystemTime(&local, &time);
    return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds};
}

void Convert(const std::wstring& log, bool forCmTrace, const std::function<void(std::string_view)>& write)
{
    const LocalTime began = ParseLogName(ToUtf8(FileNameOf(log))).value_or(LastWritten(log));
    std::string buffer;
    LineReader reader([&](const Line& line) {
        if (forCmTrace)
        {
            buffer += CmTraceLine(line.text, began) + "\r\n";  // a line that is too long becomes several
        }
        else
        {
            buffer += line.text;
            buffer += line.ends && line.hasLineEnd ? "\r\n" : "";
        }
        if (buffer.size() >= kBufferBytes)
        {
            write(buffer);
            buffer.clear();
        }
    });
    ReadFileBytes(log, [&reader](std::string_view bytes) { reader.Feed(bytes); });
    reader.Finish();
    write(buffer);
    for (const std::string& sentence : DescribeDamage(reader.GetDamage()))
    {
        WriteError("TavikToolCompanion: " + ToUtf8(log) + ": " + sentence + "\n");
    }
}
}  // namespace

int ConvertCommand(std::vector<std::wstring> given)
{
    Arguments arguments(std::move(given));
    const bool forCmTrace = arguments.TakeFlag(L"--cmtrace");
    const std::vector<std::wstring> operands = arguments.TakeOperands(1, 2);
    if (operands.size() == 1)
    {
        Convert(operands[0], forCmTrace, WriteOutput);
        return kDone;
    }
    OutputFile file(operands[1]);
    Convert(operands[0], forCmTrace, [&file](std::string_view bytes) { file.Append(bytes); });
    file.Keep();
    return kDone;
}
}  // namespace repair
