// check-server: whether a value for DWXServerFolder will do.
#include <utility>

#include "companion/arguments.h"
#include "companion/commands.h"
#include "companion/console.h"
#include "companion/failure.h"
#include "companion/server_request.h"
#include "companion/server_value.h"
#include "companion/wide_text.h"

namespace repair
{
namespace
{
constexpr std::string_view kAnyRelease = "24.20";  // for the lengths, when no release is asked for
constexpr size_t kReleaseCharacters = 5;
constexpr DWORD kOk = 200;

void Say(bool isError, const std::string& text)
{
    WriteOutput((isError ? "error: " : "warning: ") + text + "\n");
}

// False when the tool would not get an installer.
bool CheckAnswer(const std::string& url)
{
    const ServerAnswer answer = AskServer(ToWide(url));
    if (answer.error != 0)
    {
        Say(true, SystemFailure("the server cannot be asked (" + std::string(answer.step) + ")", answer.error));
        return false;
    }
    std::string said = "the server answers " + std::to_string(answer.status);
    if (answer.status >= 300 && answer.status < 400 && !answer.location.empty())
    {
        Say(true, said + " and leads to " + answer.location +
                      ": the tool would follow, also out of TLS. Name the final address");
        return false;
    }
    if (answer.status != kOk)
    {
        Say(true, said + ": only 200 will do");
        return false;
    }
    said += answer.size ? ", " + std::to_string(*answer.size) + " bytes" : ", size not announced";
    WriteOutput(said + "\n");
    if (!answer.beginsLikeProgram)
    {
        Say(true, "what it sends is no Windows program: the tool would run it nevertheless and fail");
        return false;
    }
    return true;
}
}  // namespace

int CheckServerCommand(std::vector<std::wstring> given)
{
    Arguments arguments(std::move(given));
    const auto release = arguments.TakeValue(L"--release");
    const std::string value = ToUtf8(arguments.TakeOperands(1, 1).front());
    if (release && release->size() < kReleaseCharacters)
    {
        throw UsageError("--release wants a release such as 24.20");
    }
    const ServerValue checked = CheckServerValue(value, release ? ToUtf8(*release) : std::string(kAnyRelease));
    for (const Remark& remark : checked.remarks)
    {
        Say(remark.isError, remark.text);
    }
    if (checked.HasErrors())
    {
        return kFailed;
    }
    WriteOutput("the tool asks for " + checked.url + "\n");
    return !release || CheckAnswer(checked.url) ? kDone : kFailed;
}
}  // namespace repair
