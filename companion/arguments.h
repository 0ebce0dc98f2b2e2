// The command line of this program, taken apart.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace repair
{
// A signed 32-bit number in decimal digits. Windows shows exit codes without a sign as well, so an unsigned number is
// taken for the signed one with the same bits. None for anything else.
std::optional<int> ParseExitCode(std::string_view text);

// What stands behind the command's name. Options may stand anywhere before "--". Each is taken by its name; what is
// left in the end is either one operand for each place or a mistake.
class Arguments
{
public:
    explicit Arguments(std::vector<std::wstring> arguments);

    // Whether the option stands there.
    bool TakeFlag(std::wstring_view option);

    // What follows the option. Throws UsageError when nothing does.
    std::optional<std::wstring> TakeValue(std::wstring_view option);

    // The same as a number, see ParseExitCode. Throws UsageError for anything else.
    std::optional<int> TakeNumber(std::wstring_view option);

    // The rest, once all options are taken: at least and at most so many. Throws UsageError, also for an unknown
    // option.
    std::vector<std::wstring> TakeOperands(size_t least, size_t most);

    // Everything behind "--".
    [[nodiscard]] const std::vector<std::wstring>& GetTail() const { return tail_; }

private:
    std::vector<std::wstring> left_;
    std::vector<std::wstring> tail_;
};
}  // namespace repair
