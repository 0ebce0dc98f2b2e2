// What is wrong with a value for DWXServerFolder, the administrator's own download server, found without asking
// anybody.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace repair
{
struct Remark
{
    bool isError = false;  // the tool would not get the installer, or not the way the value says
    std::string text;      // a sentence without a full stop
};

struct ServerValue
{
    std::string url;  // what the tool asks for
    std::vector<Remark> remarks;

    [[nodiscard]] bool HasErrors() const;
};

// The release's first five characters count, as for the tool. All texts are UTF-8.
ServerValue CheckServerValue(std::string_view value, std::string_view release);
}  // namespace repair
