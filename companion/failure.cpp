#include "companion/failure.h"

#include "base/system_message.h"
#include "companion/code_words.h"
#include "companion/unicode.h"

namespace repair
{
std::string SystemFailure(const std::string& what, DWORD error)
{
    std::string words(CodeInWords(error));
    words = words.empty() ? ToUtf8(FormatSystemMessage(error)) : words;
    while (words.ends_with(' '))
    {
        words.pop_back();
    }
    return what + ": error " + std::to_string(error) + (words.empty() ? "" : ", " + words);
}
}  // namespace repair
