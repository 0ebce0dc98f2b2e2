// collect: all logs of the machine in one archive, without the names of users and machines.
#include <memory>
#include <optional>

#include <windows.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "base/log.h"
#include "companion/code_words.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/explanation.h"
#include "companion/facts.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/machine_names.h"
#include "companion/output_file.h"
#include "companion/recogniser.h"
#include "companion/redaction.h"
#include "companion/unicode.h"
#include "companion/zip_archive.h"

namespace repair
{
namespace
{
constexpr wchar_t kBundle[] = L"TavikToolLogs.zip";
constexpr wchar_t kSummary[] = L"TavikToolLogs.jsonl";
constexpr char kSummaryInBundle[] = "summary.jsonl";
constexpr char kFactsInBundle[] = "facts.json";

struct CollectOptions
{
    std::string folder;
    std::string from;
    std::vector<std::string> names;
};

struct CollectedLog
{
    std::wstring name;
    Finding finding;
    std::uint64_t bytes = 0;             // read the first time; lines that the tool adds later are left out
    std::optional<std::string> failure;  // why it could not be read
};

// First pass over a log: its outcome, and the names in it.
CollectedLog Examine(const std::wstring& folder, const std::wstring& name, Redactor& redactor)
{
    CollectedLog log;
    log.name = name;
    Recogniser recogniser(ToUtf8(name), std::nullopt, [&redactor](const Line& line) { redactor.Learn(line.text); });
    try
    {
        log.bytes = ReadFileBytes(JoinPath(folder, name), [&](std::string_view bytes) { recogniser.Feed(bytes); });
    }
    catch (const UnreadableFile& failure)
    {
        log.failure = failure.what();
    }
    log.finding = recogniser.Finish();
    log.finding.seconds = DurationOfRun(JoinPath(folder, name));
    return log;
}

// The placeholders lose their brackets, because Windows does not allow these in file names.
std::string NameInArchive(const std::wstring& name, const Redactor& redactor)
{
    std::string clean = redactor.Redact(ToUtf8(name));
    std::erase_if(clean, [](char c) { return c == '<' || c == '>'; });
    return clean;
}

// Second pass over a log: into the archive.
void Pack(const std::wstring& folder, const CollectedLog& log, const Redactor& redactor, ZipArchive& archive)
{
    archive.Begin(NameInArchive(log.name, redactor), LastWritten(JoinPath(folder, log.name)));
    WriteAsText(
        JoinPath(folder, log.name), [&redactor](const Line& line) { return redactor.Redact(line.text); },
        [&archive](std::string_view bytes) { archive.Write(bytes); }, log.bytes);
    archive.End();
}

std::string Summarise(const CollectedLog& log, const Redactor& redactor)
{
    const auto clean = [&redactor](std::string_view text) { return redactor.Redact(text); };
    const bool isLog = log.finding.lines == 0 || log.finding.facts.IsLog();
    return (log.failure ? UnreadableAsJson(clean(ToUtf8(log.name)), clean(*log.failure))
            : isLog     ? ExplainAsJson(log.finding, clean)
                        : UnreadableAsJson(clean(ToUtf8(log.name)), "this is no log of the tool")) +
           "\n";
}

// Applies `edit` to each text.
void EditTexts(nlohmann::ordered_json& json, const std::function<std::string(const std::string&)>& edit)
{
    std::vector<nlohmann::ordered_json*> left = {&json};
    while (!left.empty())
    {
        nlohmann::ordered_json& one = *left.back();
        left.pop_back();
        if (one.is_string())
        {
            one = edit(one.get<std::string>());
        }
        else if (one.is_structured())
        {
            for (nlohmann::ordered_json& item : one)
            {
                left.push_back(&item);
            }
        }
    }
}

// The facts of this machine, and the codes of its newest runs. Lets the redactor learn the names in them.
nlohmann::ordered_json MachineFacts(const std::vector<CollectedLog>& logs, Redactor& redactor)
{
    constexpr size_t kMostCodes = 20;
    nlohmann::ordered_json facts = FindFacts();
    facts["last_codes"] = nlohmann::ordered_json::array();
    for (auto log = logs.rbegin(); log != logs.rend() && facts["last_codes"].size() < kMostCodes; ++log)
    {
        nlohmann::ordered_json codes = nlohmann::ordered_json::array();
        nlohmann::ordered_json outcomes = nlohmann::ordered_json::array();
        for (const Candidate& candidate : log->finding.candidates)
        {
            outcomes.push_back(candidate.meaning->id);
            for (const std::string& line : candidate.evidence)
            {
                if (const std::optional<long long> code = CodeIn(line))
                {
                    codes.push_back(*code);
                }
            }
        }
        facts["last_codes"].push_back({{"log", ToUtf8(log->name)}, {"outcomes", outcomes}, {"codes", codes}});
    }
    EditTexts(facts, [&redactor](const std::string& text) {
        redactor.Learn(text);
        return text;
    });
    return facts;
}

void MakeFolder(const std::wstring& folder)
{
    if (CreateDirectoryW(folder.c_str(), nullptr) == 0)
    {
        const DWORD error = GetLastError();
        if (error == ERROR_ALREADY_EXISTS && !IsFolder(folder))
        {
            throw Failure(ToUtf8(folder) + " is a file: name a folder");
        }
        if (error != ERROR_ALREADY_EXISTS)
        {
            throw Failure(SystemFailure(ToUtf8(folder) + " cannot be created", error));
        }
    }
}

// Writes archive and summary. Returns false, after a message, if a log could not be read.
bool WriteBundle(const std::wstring& from, const std::wstring& folder, const std::vector<CollectedLog>& logs,
                 const nlohmann::ordered_json& facts, const Redactor& redactor)
{
    OutputFile file(JoinPath(folder, kBundle));
    ZipArchive archive(file);
    std::string summary;
    bool isComplete = true;
    for (const CollectedLog& log : logs)
    {
        if (log.failure)
        {
            WriteError(*log.failure);
            isComplete = false;
        }
        else
        {
            Pack(from, log, redactor, archive);
        }
        summary += Summarise(log, redactor);
    }
    archive.Begin(kSummaryInBundle, Now());
    archive.Write(summary);
    archive.End();
    if (!facts.is_null())
    {
        archive.Begin(kFactsInBundle, Now());
        archive.Write(InOneLine(facts) + "\n");
        archive.End();
    }
    archive.Finish();
    OutputFile summaryFile(JoinPath(folder, kSummary));
    summaryFile.Append(summary);
    file.Keep();
    summaryFile.Keep();
    return isComplete;
}

int ExecuteCollect(const CollectOptions& options)
{
    const std::wstring from = options.from.empty() ? GetLogFolder() : ToWide(options.from);
    const std::wstring folder = ToWide(options.folder);
    Redactor redactor;
    redactor.KeepHost(TAVIK_DOWNLOAD_HOST);
    for (const std::string& name : options.names)
    {
        redactor.Add(NameKind::kUser, name);
    }
    AddMachineNames(redactor);

    std::vector<CollectedLog> logs;
    for (const std::wstring& name : ListLogs(from))
    {
        logs.push_back(Examine(from, name, redactor));
    }
    if (logs.empty() && !options.from.empty())
    {
        throw Failure("there are no logs in " + ToUtf8(from) + ": name another folder with --from");
    }
    nlohmann::ordered_json facts;
    if (options.from.empty())  // logs of another folder may be another machine's
    {
        facts = MachineFacts(logs, redactor);
        EditTexts(facts, [&redactor](const std::string& text) { return redactor.Redact(text); });
    }
    MakeFolder(folder);
    int result = WriteBundle(from, folder, logs, facts, redactor) ? kDone : kFailed;
    if (redactor.IsFull())
    {
        WriteError("the logs contain more than " + std::to_string(Redactor::kMostLearnt) +
                   " names of users and machines; the last ones were not replaced");
        result = kFailed;
    }
    const std::string bundle = ToUtf8(JoinPath(folder, kBundle));
    WriteOutput(logs.empty() ? "no logs in " + ToUtf8(from) + "; facts of this machine in " + bundle + "\n"
                             : std::to_string(logs.size()) + (logs.size() == 1 ? " log in " : " logs in ") + bundle +
                                   ", summary in " + ToUtf8(JoinPath(folder, kSummary)) + "\n");
    return result;
}
}  // namespace

void AddCollectCommand(CLI::App& program, int& result)
{
    const auto options = std::make_shared<CollectOptions>();
    CLI::App& command =
        *program.add_subcommand("collect", "Puts all logs into one archive, without names of users and machines.");
    command
        .add_option("FOLDER", options->folder,
                    "gets TavikToolLogs.zip with the logs and, without --from,\n"
                    "facts.json, which describes the machine; and\n"
                    "TavikToolLogs.jsonl, the summary: one JSON object per log")
        ->type_name("")
        ->required();
    command.add_option("--from", options->from, "folder with the logs; the tool's own without it")->type_name("FOLDER");
    command.add_option("--name", options->names, "replace this name as well; may be repeated")
        ->type_name("NAME")
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command.footer(
        "Examples:\n"
        "  TavikToolCompanion collect C:\\bundle\n"
        "  TavikToolCompanion collect C:\\bundle --from D:\\logs --name owner --name OWNER-PC");
    command.callback([options, &result] { result = ExecuteCollect(*options); });
}
}  // namespace repair
