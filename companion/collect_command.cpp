// collect: all logs of the machine in one archive, without the names of users and machines.
#include <optional>
#include <utility>

#include <windows.h>

#include "base/log.h"
#include "companion/arguments.h"
#include "companion/catalogue.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/explanation.h"
#include "companion/failure.h"
#include "companion/json.h"
#include "companion/log_files.h"
#include "companion/machine_names.h"
#include "companion/output_file.h"
#include "companion/redaction.h"
#include "companion/wide_text.h"
#include "companion/zip_archive.h"

namespace repair
{
namespace
{
constexpr wchar_t kBundle[] = L"TavikToolLogs.zip";
constexpr wchar_t kSummary[] = L"TavikToolLogs.jsonl";
constexpr char kSummaryInBundle[] = "summary.jsonl";
constexpr size_t kBufferBytes = 65'536;

class ZipFile : public ZipTarget
{
public:
    explicit ZipFile(const std::wstring& path) : file_(path) {}

    bool Append(std::string_view bytes) override
    {
        file_.Append(bytes);
        return true;
    }
    bool Patch(std::uint64_t offset, std::string_view bytes) override
    {
        file_.Patch(offset, bytes);
        return true;
    }
    void Keep() { file_.Keep(); }

private:
    OutputFile file_;
};

struct CollectedLog
{
    std::wstring name;
    Finding finding;
    std::uint64_t bytes = 0;             // read the first time; what the tool has added since is left out
    std::optional<std::string> failure;  // why it could not be read
};

// The first time: what run it was, and the names in it.
CollectedLog LookAt(const std::wstring& folder, const std::wstring& name, Redactor& redactor)
{
    CollectedLog log;
    log.name = name;
    Classifier classifier(BuiltInCatalogue(), ToUtf8(name), std::nullopt,
                          [&redactor](const Line& line) { redactor.Learn(line.text); });
    try
    {
        log.bytes = ReadFileBytes(JoinPath(folder, name), [&](std::string_view bytes) { classifier.Feed(bytes); });
    }
    catch (const UnreadableFile& failure)
    {
        log.failure = failure.what();
    }
    log.finding = classifier.Finish();
    return log;
}

void Check(bool written)
{
    if (!written)  // the file itself would have thrown
    {
        throw Failure("the logs are more than an archive can hold (4 GB): move some to another folder, see --from");
    }
}

// Windows allows no brackets in the name of a file, so that its Explorer would not unpack it.
std::string NameInArchive(const std::wstring& name, const Redactor& redactor)
{
    std::string clean = redactor.Redact(ToUtf8(name));
    std::erase_if(clean, [](char c) { return c == '<' || c == '>'; });
    return clean;
}

// The second time: into the archive.
void Pack(const std::wstring& folder, const CollectedLog& log, const Redactor& redactor, ZipArchive& archive)
{
    Check(archive.Begin(NameInArchive(log.name, redactor), ParseLogName(ToUtf8(log.name)).value_or(LocalTime())));
    std::string buffer;
    LineReader reader([&](const Line& line) {
        buffer += redactor.Redact(line.text);
        buffer += line.ends && line.hasLineEnd ? "\r\n" : "";
        if (buffer.size() >= kBufferBytes)
        {
            Check(archive.Write(buffer));
            buffer.clear();
        }
    });
    ReadFileBytes(
        JoinPath(folder, log.name), [&reader](std::string_view bytes) { reader.Feed(bytes); }, log.bytes);
    reader.Finish();
    Check(archive.Write(buffer) && archive.End());
}

std::string Summarise(const CollectedLog& log, const Redactor& redactor)
{
    const auto clean = [&redactor](std::string_view text) { return redactor.Redact(text); };
    if (log.failure)
    {
        JsonObject object;
        object.Add("log", clean(ToUtf8(log.name))).Add("error", clean(*log.failure));
        return object.Text() + "\n";
    }
    return ExplainAsJson(log.finding, clean) + "\n";
}

LocalTime Now()
{
    SYSTEMTIME time = {};
    GetLocalTime(&time);
    return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds};
}
}  // namespace

int CollectCommand(std::vector<std::wstring> given)
{
    Arguments arguments(std::move(given));
    const std::wstring from = arguments.TakeValue(L"--from").value_or(GetLogFolder());
    Redactor redactor;
    redactor.KeepHost(TAVIK_DOWNLOAD_HOST);
    while (const auto name = arguments.TakeValue(L"--name"))
    {
        redactor.Add(NameKind::User, ToUtf8(*name));
    }
    const std::wstring folder = arguments.TakeOperands(1, 1).front();
    AddMachineNames(redactor);

    std::vector<CollectedLog> logs;
    for (const LogFile& file : ListLogs(from))
    {
        logs.push_back(LookAt(from, file.name, redactor));
    }
    if (logs.empty())
    {
        throw Failure("there are no logs in " + ToUtf8(from));
    }
    if (CreateDirectoryW(folder.c_str(), nullptr) == 0)
    {
        const DWORD error = GetLastError();
        if (error != ERROR_ALREADY_EXISTS)
        {
            throw Failure(SystemFailure(ToUtf8(folder) + " cannot be created", error));
        }
    }
    ZipFile file(JoinPath(folder, kBundle));
    ZipArchive archive(file);
    std::string summary;
    int result = kDone;
    for (CollectedLog& log : logs)
    {
        if (!log.failure)
        {
            Pack(from, log, redactor, archive);
        }
        else
        {
            WriteError("TavikToolCompanion: " + *log.failure + "\n");
            result = kFailed;
        }
        summary += Summarise(log, redactor);
    }
    Check(archive.Begin(kSummaryInBundle, Now()) && archive.Write(summary) && archive.End() && archive.Finish());
    OutputFile summaryFile(JoinPath(folder, kSummary));
    summaryFile.Append(summary);
    file.Keep();
    summaryFile.Keep();
    if (redactor.IsFull())
    {
        WriteError("TavikToolCompanion: the logs hold more than " + std::to_string(Redactor::kMostLearnt) +
                   " names of users and machines; the last ones have been left in\n");
        result = kFailed;
    }
    WriteOutput(std::to_string(logs.size()) + (logs.size() == 1 ? " log in " : " logs in ") +
                ToUtf8(JoinPath(folder, kBundle)) + ", summary in " + ToUtf8(JoinPath(folder, kSummary)) + "\n");
    return result;
}
}  // namespace repair
