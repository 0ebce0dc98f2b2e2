// Checks a value for DWXServerFolder, the administrator's own download server, without a request to it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace repair
{
constexpr size_t kReleaseCharacters = 5;  // as in src/acquisition/constants.h

struct Remark
{
    bool isError = false;  // the tool would not get the installer, or not as the value intends
    std::string text;      // a sentence without a full stop
};

struct ServerValue
{
    std::string url;  // the address that the tool asks for
    std::vector<Remark> remarks;

    [[nodiscard]] bool HasErrors() const;
};

// Returns the address of a release's installer below a server folder; an empty folder means the maker's own.
std::string InstallerAddress(std::string_view folder, std::string_view release);

// Uses only the first five characters of the release, like the tool. All texts are UTF-8.
ServerValue CheckServerValue(std::string_view value, std::string_view release);
}  // namespace repair
