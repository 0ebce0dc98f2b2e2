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
    // So many names are learnt at the most. The tool writes an account and a server into a log, mostly the same ones:
    // hundreds of users of one machine fit. With as many a log that is made to be slow costs 1.4 s a megabyte (measured
    // on the build host), and twice the names twice that.
    static constexpr size_t kMostLearnt = 1000;

    // A name that is known beforehand, however many there are. Names that mean nobody ("SYSTEM", "Public",
    // "localhost"...) are passed over.
    void Add(NameKind kind, std::string_view name);

    // The name of a profile folder. Windows appends the domain or a number when the user's own name is taken: of
    // "owner.DOMAIN" it is the whole and "owner".
    void AddProfile(std::string_view folder);

    // This host may stand: the maker's own download server tells nothing about anybody.
    void KeepHost(std::string_view host);

    // Finds the names in profile paths (C:\Users\NAME), DOMAIN\user, name@domain, \\server and scheme://server.
    void Learn(std::string_view line);

    // Whether a name was found that is one too many, and so will stand.
    [[nodiscard]] bool IsFull() const { return isFull_; }

    // The line with placeholders. What stands before the "@" of an address (user, password) goes as well.
    [[nodiscard]] std::string Redact(std::string_view line) const;

private:
    struct Name
    {
        std::u32string folded;
        std::string placeholder;
    };

    [[nodiscard]] bool IsWanted(std::u32string_view name) const;
    void Put(NameKind kind, std::u32string_view name);
    void LearnName(NameKind kind, std::u32string_view name);
    void LearnProfile(std::u32string_view text);
    void LearnAccount(std::u32string_view text);
    void LearnWord(std::u32string_view word);
    void LearnHosts(std::u32string_view text);
    [[nodiscard]] const Name* Find(std::u32string_view folded, size_t at) const;

    std::unordered_map<char32_t, std::vector<Name>> names_;  // by first letter, the longest first
    std::unordered_map<std::u32string, bool> known_;         // true: stays as it is
    int counts_[3] = {};                                     // of each kind
    size_t learnt_ = 0;
    bool isFull_ = false;
};
}  // namespace repair
