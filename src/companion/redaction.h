// Takes the names of users and machines out of lines of a log.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace repair
{
enum class NameKind
{
    User,
    Machine,
    Domain,
};

// First every line is shown to Learn, then Redact takes out what was learnt, wherever it stands and however its letters
// are written. One name always gets the same placeholder, <user1> for instance. Texts are UTF-8.
class Redactor
{
public:
    // A name that is known beforehand. Names that mean nobody ("SYSTEM", "Public", "localhost"...) are passed over.
    void Add(NameKind kind, std::string_view name);

    // This host may stand: the maker's own download server tells nothing about anybody.
    void KeepHost(std::string_view host);

    // Finds the names in profile paths (C:\Users\NAME), DOMAIN\user, name@domain, \\server and scheme://server.
    void Learn(std::string_view line);

    // The line with placeholders. What stands before the "@" of an address (user, password) goes as well.
    [[nodiscard]] std::string Redact(std::string_view line) const;

private:
    struct Name
    {
        std::u32string folded;
        std::string placeholder;
    };

    void LearnProfile(std::u32string_view text);
    void LearnAccount(std::u32string_view text);
    void LearnWord(std::u32string_view word);
    void LearnHosts(std::u32string_view text);
    [[nodiscard]] const Name* Find(std::u32string_view folded, size_t at) const;

    std::unordered_map<char32_t, std::vector<Name>> names_;  // by first letter, the longest first
    std::unordered_map<std::u32string, bool> known_;         // true: stays as it is
    int counts_[3] = {};                                     // of each kind
};
}  // namespace repair
