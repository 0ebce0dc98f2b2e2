#include "companion/redaction.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include <utf8cpp/utf8.h>

#include "companion/unicode.h"

namespace repair
{
namespace
{
using Text = std::u32string_view;

// Names that identify no person or machine. Texts of the tool contain some of these words.
constexpr std::array kGeneral = {
    Text(U"administrator"), Text(U"administrators"), Text(U"all users"),       Text(U"default"),
    Text(U"default user"),  Text(U"everyone"),       Text(U"guest"),           Text(U"local service"),
    Text(U"localhost"),     Text(U"localservice"),   Text(U"network service"), Text(U"networkservice"),
    Text(U"public"),        Text(U"system"),         Text(U"systemprofile"),   Text(U"tavik"),
    Text(U"temp"),          Text(U"users"),          Text(U"workgroup"),       Text(U"127.0.0.1"),
    Text(U"::1"),
};

// Words before a backslash that are no domain: registry roots, buses, and the second word of "NT AUTHORITY", "Program
// Files" and similar.
constexpr std::array kNoDomain = {
    Text(U"acpi"),    Text(U"authority"), Text(U"builtin"), Text(U"display"), Text(U"files"),
    Text(U"hdaudio"), Text(U"hkcu"),      Text(U"hklm"),    Text(U"pci"),     Text(U"root"),
    Text(U"service"), Text(U"software"),  Text(U"swd"),     Text(U"system"),  Text(U"usb"),
};

// Endings that show that the part after the backslash is a file.
constexpr std::array kFileEndings = {
    Text(U".bat"), Text(U".cab"), Text(U".cmd"), Text(U".dll"), Text(U".exe"), Text(U".inf"), Text(U".ini"),
    Text(U".log"), Text(U".msi"), Text(U".ps1"), Text(U".tmp"), Text(U".txt"), Text(U".zip"),
};

constexpr std::array kProfileFolders = {Text(U"\\users\\"), Text(U"/users/"), Text(U"\\documents and settings\\")};

constexpr Text kSchemeEnd = U"://";
constexpr Text kNotInAccounts = U"\"/\\[]:;|=,+*?<>@";  // Windows allows none of these in the name of an account
constexpr Text kBetweenWords = U" \t\"'[](){}<>,;=";
constexpr Text kAuthorityEnds = U"/\\?# \t\"'[]()<>,";
constexpr size_t kLongestDomain = 255;
constexpr size_t kLongestUser = 64;

template <size_t size>
bool IsOneOf(Text text, const std::array<Text, size>& list)
{
    return std::ranges::find(list, text) != list.end();
}

bool IsWordCharacter(char32_t c)
{
    return c >= 0x80 || (c >= U'0' && c <= U'9') || (c >= U'a' && c <= U'z') || (c >= U'A' && c <= U'Z');
}

bool IsNameCharacter(char32_t c)
{
    return IsWordCharacter(c) || c == U'-' || c == U'_' || c == U'.' || c == U'$';
}

std::u32string FoldText(std::u32string text)
{
    std::ranges::transform(text, text.begin(), Fold);
    return text;
}

Text Trimmed(Text text)
{
    text = text.substr(0, text.find_last_not_of(U" .") + 1);
    return text.substr(std::min(text.find_first_not_of(U' '), text.size()));
}

// A folder named after a release, such as "24.20".
bool IsRelease(Text text)
{
    return text.find(U'.') != Text::npos && text.find_first_not_of(U"0123456789.") == Text::npos;
}

bool IsFile(Text text)
{
    return std::ranges::any_of(kFileEndings, [text](Text ending) { return text.ends_with(ending); });
}

// For "owner.domain.000" returns that, "owner.domain" and "owner". Leaves out a single letter, which is an initial.
std::vector<Text> NamesOfProfile(Text folder)
{
    std::vector<Text> names = {folder};
    size_t dot = IsFile(folder) ? Text::npos : folder.rfind(U'.');
    while (dot != Text::npos && dot > 1)
    {
        names.push_back(folder.substr(0, dot));
        dot = folder.rfind(U'.', dot - 1);
    }
    return names;
}

// Returns the authority of an address: the part between "://" and the path.
Text AuthorityAt(Text text, size_t at)
{
    const Text rest = text.substr(at);
    // A bracket starts an IPv6 address only at the beginning or after the user.
    const size_t user = rest.substr(0, rest.find_first_of(U"/\\ \t\"")).rfind(U'@');
    const size_t host = user == Text::npos ? 0 : user + 1;
    if (host < rest.size() && rest[host] == U'[')
    {
        const size_t bracket = rest.find(U']', host);
        if (bracket != Text::npos)
        {
            return rest.substr(0, std::min(rest.find_first_of(kAuthorityEnds, bracket + 1), rest.size()));
        }
    }
    return rest.substr(0, std::min(rest.find_first_of(kAuthorityEnds, host), rest.size()));
}
}  // namespace

void Redactor::Add(NameKind kind, std::string_view name)
{
    Put(kind, FoldText(ToUtf32(name)));
}

void Redactor::AddProfile(std::string_view folder)
{
    const std::u32string folded = FoldText(ToUtf32(folder));
    for (const Text name : NamesOfProfile(folded))
    {
        Put(NameKind::kUser, name);
    }
}

void Redactor::LearnName(NameKind kind, std::u32string_view name)
{
    if (name.size() > kLongestDomain || !IsWanted(name))
    {
        return;
    }
    if (learnt_ == kMostLearnt)
    {
        isFull_ = true;
        return;
    }
    ++learnt_;
    Put(kind, name);
}

// Returns whether the name identifies a person or machine and is new.
bool Redactor::IsWanted(std::u32string_view name) const
{
    const Text trimmed = Trimmed(name);
    return !trimmed.empty() && !IsOneOf(trimmed, kGeneral) && !known_.contains(std::u32string(trimmed));
}

void Redactor::Put(NameKind kind, std::u32string_view name)
{
    if (!IsWanted(name))
    {
        return;
    }
    constexpr std::string_view kWords[] = {"user", "machine", "domain"};
    const auto index = static_cast<size_t>(kind);
    const std::u32string folded(Trimmed(name));
    known_.insert(folded);
    std::vector<Name>& same = names_[folded.front()];
    const auto place = std::ranges::upper_bound(same, folded.size(), std::ranges::greater(),
                                                [](const Name& other) { return other.folded.size(); });
    same.insert(place, {folded, "<" + std::string(kWords[index]) + std::to_string(++counts_[index]) + ">"});
}

void Redactor::KeepHost(std::string_view host)
{
    known_.insert(FoldText(ToUtf32(host)));
}

void Redactor::Learn(std::string_view line)
{
    // Every form that is learnt contains one of these; most lines do not.
    if (line.find_first_of("\\/@") == std::string_view::npos)
    {
        return;
    }
    const std::u32string text = FoldText(ToUtf32(line));
    LearnProfile(text);
    LearnAccount(text);
    LearnHosts(text);
}

void Redactor::LearnProfile(std::u32string_view text)
{
    for (const Text folder : kProfileFolders)
    {
        for (size_t at = text.find(folder); at != Text::npos; at = text.find(folder, at + 1))
        {
            const Text rest = text.substr(at + folder.size());
            const Text name = rest.substr(0, std::min(rest.find_first_of(kNotInAccounts), kLongestUser));
            for (const Text part : NamesOfProfile(name))
            {
                LearnName(NameKind::kUser, part);
            }
        }
    }
}

void Redactor::LearnAccount(std::u32string_view text)
{
    bool inPath = false;  // a path with blanks continues in the next word
    while (!text.empty())
    {
        const size_t length = std::min(text.find_first_of(kBetweenWords), text.size());
        const Text word = text.substr(0, length);
        const bool endsHere = length < text.size() && text[length] != U' ';
        text.remove_prefix(std::min(text.size(), length + 1));
        // After a share, rather replace a folder than keep a name.
        inPath = inPath || word.find(U":\\") != Text::npos;
        if (!inPath || word.find(U'\\') == Text::npos)
        {
            LearnWord(word);
        }
        inPath = inPath && !endsHere && !IsFile(Trimmed(word));
    }
}

// DOMAIN\user or user@domain.
void Redactor::LearnWord(std::u32string_view word)
{
    const size_t mark = word.find_first_of(U"\\@");
    if (mark == Text::npos || mark == 0 || mark + 1 == word.size())
    {
        return;
    }
    const Text before = word.substr(0, mark);
    const Text after = Trimmed(word.substr(mark + 1));
    if (!std::ranges::all_of(before, IsNameCharacter) || !std::ranges::all_of(after, IsNameCharacter))
    {
        return;
    }
    if (word[mark] == U'@')
    {
        if (after.find(U'.') != Text::npos)
        {
            LearnName(NameKind::kUser, before);
            LearnName(NameKind::kDomain, after);
        }
    }
    else if (!IsFile(after) && !IsRelease(after) && before.size() <= kLongestDomain && after.size() <= kLongestUser &&
             !IsOneOf(before, kNoDomain))
    {
        LearnName(NameKind::kDomain, before);
        LearnName(NameKind::kUser, after);
    }
}

void Redactor::LearnHosts(std::u32string_view text)
{
    for (size_t at = text.find(kSchemeEnd); at != Text::npos; at = text.find(kSchemeEnd, at + 1))
    {
        Text host = AuthorityAt(text, at + kSchemeEnd.size());
        const size_t user = host.rfind(U'@');
        host.remove_prefix(user == Text::npos ? 0 : user + 1);
        host = host.starts_with(U'[') ? host.substr(1, std::max<size_t>(host.find(U']'), 1) - 1)
                                      : host.substr(0, std::min(host.find(U':'), host.size()));
        LearnName(NameKind::kMachine, host);
    }
    constexpr Text kShare = U"\\\\";
    for (size_t at = text.find(kShare); at != Text::npos; at = text.find(kShare, at + 1))
    {
        // Inside a word, two backslashes are only a doubled separator.
        const bool begins = at == 0 || kBetweenWords.find(text[at - 1]) != Text::npos;
        Text rest = text.substr(at + kShare.size());
        constexpr Text kLongForm = U"?\\unc\\";
        rest.remove_prefix(rest.starts_with(kLongForm) ? kLongForm.size() : 0);
        const Text host = rest.substr(0, std::min(rest.find(U'\\'), rest.size()));
        if (begins && host.size() < rest.size() && host != U"." && std::ranges::all_of(host, IsNameCharacter))
        {
            LearnName(NameKind::kMachine, host);
        }
    }
}

// Returns the longest known name that begins here and is a whole word, or null.
const Redactor::Name* Redactor::Find(std::u32string_view folded, size_t at) const
{
    const auto same = names_.find(folded[at]);
    if (same == names_.end() || (at > 0 && IsWordCharacter(folded[at - 1]) && IsWordCharacter(folded[at])))
    {
        return nullptr;
    }
    for (const Name& name : same->second)
    {
        const Text rest = folded.substr(at);
        if (!rest.starts_with(name.folded))
        {
            continue;
        }
        const size_t end = name.folded.size();
        const bool ends = end == rest.size() || !IsWordCharacter(rest[end]) || !IsWordCharacter(name.folded.back());
        // A name of one letter might be a drive.
        const bool isAlone = end == 1 && (at == 0 || (folded[at - 1] != U'\\' && folded[at - 1] != U'/'));
        if (ends && !isAlone)
        {
            return &name;
        }
    }
    return nullptr;
}

std::string Redactor::Redact(std::string_view line) const
{
    const std::u32string text = ToUtf32(line);
    const std::u32string folded = FoldText(text);
    std::string out;
    for (size_t at = 0; at < text.size();)
    {
        if (Text(folded).substr(at).starts_with(kSchemeEnd))
        {
            out += "://";
            at += kSchemeEnd.size();
            const size_t user = AuthorityAt(folded, at).rfind(U'@');
            if (user != Text::npos)
            {
                out += "<login>@";
                at += user + 1;
            }
            continue;
        }
        if (const Name* name = Find(folded, at))
        {
            out += name->placeholder;
            at += name->folded.size();
            continue;
        }
        utf8::append(text[at++], out);
    }
    return out;
}
}  // namespace repair
