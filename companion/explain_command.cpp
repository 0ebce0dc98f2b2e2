// explain: what happened in a run, by its log.
#include <optional>
#include <utility>

#include "companion/arguments.h"
#include "companion/catalogue.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/explanation.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/wide_text.h"

namespace repair
{
namespace
{
struct Run
{
    std::wstring log;  // empty: it has left none
    std::optional<int> exitCode;
};

// One run a line: exit code, tab, path of the log. Either may be empty.
std::vector<Run> ReadList(const std::wstring& path)
{
    std::vector<Run> runs;
    LineReader reader([&](const Line& line) {
        if (line.text.empty())
        {
            return;
        }
        const size_t tab = line.text.find('\t');
        const std::string_view code = line.text.substr(0, tab);
        const std::optional<int> exitCode = ParseExitCode(code);
        if (tab == std::string_view::npos || (!exitCode && !code.empty()))
        {
            throw Failure(ToUtf8(path) + ": a line is not exit code, tab, path: " + std::string(line.text));
        }
        runs.push_back({ToWide(line.text.substr(tab + 1)), exitCode});
    });
    ReadFileBytes(path, [&reader](std::string_view bytes) { reader.Feed(bytes); });
    reader.Finish();
    return runs;
}

Finding Explain(const Run& run)
{
    if (run.log.empty())
    {
        return ClassifyWithoutLog(BuiltInCatalogue(), run.exitCode);
    }
    Classifier classifier(BuiltInCatalogue(), ToUtf8(FileNameOf(run.log)), run.exitCode);
    ReadFileBytes(run.log, [&classifier](std::string_view bytes) { classifier.Feed(bytes); });
    return classifier.Finish();
}
}  // namespace

int ExplainCommand(std::vector<std::wstring> given)
{
    Arguments arguments(std::move(given));
    const bool asJson = arguments.TakeFlag(L"--json");
    const bool withoutLog = arguments.TakeFlag(L"--no-log");
    const std::optional<int> exitCode = arguments.TakeNumber(L"--exit");
    std::vector<Run> runs;
    for (const std::wstring& operand : arguments.TakeOperands(withoutLog ? 0 : 1, withoutLog ? 0 : SIZE_MAX))
    {
        if (operand.starts_with(L'@'))
        {
            const std::vector<Run> listed = ReadList(operand.substr(1));
            runs.insert(runs.end(), listed.begin(), listed.end());
        }
        else
        {
            runs.push_back({operand, exitCode});
        }
    }
    if (withoutLog)
    {
        runs.push_back({{}, exitCode});
    }
    if (runs.size() > 1 && !asJson)
    {
        throw UsageError("several logs need --json");
    }
    int result = kDone;
    for (const Run& run : runs)
    {
        try
        {
            const Finding finding = Explain(run);
            WriteOutput(asJson ? ExplainAsJson(finding) + "\n" : ExplainAsText(finding));
            result = finding.candidates.empty() ? kFailed : result;
        }
        catch (const UnreadableFile& failure)  // the others are explained all the same
        {
            WriteError("TavikToolCompanion: " + std::string(failure.what()) + "\n");
            result = kFailed;
        }
    }
    return result;
}
}  // namespace repair
