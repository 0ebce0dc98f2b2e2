// Replaces the names of users and machines in lines of a log.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace repair
{
enum class NameKind
{
    kUser,
    kMachine,
    kDomain,
};

// Pass every line to Learn first. Redact then replaces each learnt name everywhere, in any letter case. One name always
// gets the same placeholder, for example <user1>. Texts are UTF-8.
class Redactor
{
public:
    // Learn stops at this number of names. A log of the tool has one account and one server, so the logs of hundreds of
    // users fit. The time for a hostile log grows with the number: 1,000 names cost 1.4 s per megabyte.
    static constexpr size_t kMostLearnt = 1000;

    // Adds a name that is known beforehand; these have no limit. Ignores names that identify no person or machine
    // ("SYSTEM", "Public", "localhost"...).
    void Add(NameKind kind, std::string_view name);

    // Adds the name of a profile folder. Windows appends the domain or a number if the user's own name is taken, so
    // "owner.DOMAIN" adds "owner" as well.
    void AddProfile(std::string_view folder);

    // Excludes a host from redaction: the maker's own download server identifies no user.
    void KeepHost(std::string_view host);

    // Finds the names in profile paths (C:\Users\NAME), DOMAIN\user, name@domain, \\server and scheme://server.
    void Learn(std::string_view line);

    // Returns whether Learn found more names than the limit. Redact does not replace the others.
    [[nodiscard]] bool IsFull() const { return isFull_; }

    // Returns the line with placeholders. Replaces the user and password of an address as well.
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
    std::unordered_set<std::u32string> known_;               // names in names_, and hosts to keep
    int counts_[3] = {};                                     // of each kind
    size_t learnt_ = 0;
    bool isFull_ = false;
};
}  // namespace repair
