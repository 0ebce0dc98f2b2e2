#include "companion/code_words.h"

#include <cstdint>
#include <cstdio>
#include <utility>

#include "companion/pattern.h"

namespace repair
{
namespace
{
constexpr std::pair<long long, std::string_view> kCodes[] = {
    {2, "the file was not found: check the path"},
    {3, "the folder was not found: check the path"},
    {5, "access was denied: start as administrator"},
    {32, "another program has the file open: close that program"},
    {53, "the server of the share was not found: check its name and the network"},
    {112, "the disk is full: free some space"},
    {193, "the file is no program for this Windows: check what was downloaded"},
    {225, "a security product stopped the file: allow it there"},
    {740, "administrator rights are needed: start as administrator"},
    {1223, "a user refused: start again and confirm"},
    {1260, "a policy forbids the program: allow it in the policy"},
    {1603, "the package failed: the Application log of the Event Viewer, source MsiInstaller, names the cause"},
    {1618, "another installation is in progress: wait until it has ended"},
    {1619, "the package could not be opened: check the installer's file"},
    {1620, "the file is no package: check the installer's file"},
    {1625, "a policy forbids the installation: allow it in the policy"},
    {1641, "success, a restart has begun"},
    {3010, "success, a restart completes it: restart"},
    {12002, "no answer in time: check network and proxy, then try again"},
    {12007, "the server's name was not found: check the address and the name server (DNS)"},
    {12029, "no connection to the server: check address, port, firewall and proxy"},
    {12030, "the connection was closed: check proxy and firewall, then try again"},
    {12031, "the connection was reset: check proxy and firewall, then try again"},
    {12037, "the server's certificate is out of date: renew it, or set this PC's clock"},
    {12038, "the server's certificate has another name: correct the address or the certificate"},
    {12045, "the authority of the server's certificate is unknown: install its root certificate"},
    {12057, "the certificate could not be checked for revocation: let this PC reach its authority"},
    {12152, "the answer is not HTTP: check port and proxy"},
    {12157, "no secure connection: server and this PC have no version of TLS in common"},
    {12170, "the server's certificate was revoked: get a new one"},
    {12175, "no secure connection: check the server's certificate and TLS"},
};

// The forms in which the log has codes.
constexpr std::string_view kLines[] = {
    "*. Error <result>",        "*. Error = <result>*",    "*. Error: <result>*", "*. Error code = <result>*",
    "*. Error code: <result>*", "* error code: <result>*", "\tResult = <result>", "\t Result = <result> *"};
}  // namespace

std::optional<int> InsideHresult(long long code)
{
    const auto bits = static_cast<std::uint32_t>(code);
    return bits >> 16 == 0x8007 ? std::optional(static_cast<int>(bits & 0xFFFF)) : std::nullopt;
}

std::string DescribeCode(long long code)
{
    constexpr long long kGreatestHresult = -0x10000;  // above it are codes such as -1
    if (code < INT32_MIN || code > kGreatestHresult)
    {
        return std::to_string(code);
    }
    char hex[sizeof("0x80070643")] = {};
    std::snprintf(hex, sizeof(hex), "0x%08X", static_cast<unsigned int>(code));
    const std::optional<int> inside = InsideHresult(code);
    return std::to_string(code) + " (" + hex + (inside ? ", Windows code " + std::to_string(*inside) : "") + ")";
}

std::string_view CodeInWords(long long code)
{
    const std::optional<int> inside = InsideHresult(code);
    const long long plain = inside ? *inside : code;
    for (const auto& [known, words] : kCodes)
    {
        if (known == plain)
        {
            return words;
        }
    }
    return {};
}

std::optional<long long> CodeIn(std::string_view line)
{
    for (const std::string_view pattern : kLines)
    {
        const PatternMatch match = MatchLine(pattern, line);
        if (match.matches && match.result)
        {
            return match.result;
        }
    }
    return std::nullopt;
}

std::string CodeOfLine(std::string_view line)
{
    const std::optional<long long> code = CodeIn(line);
    constexpr int kAccessDenied = 5;
    // The tool always has these rights, so the advice for programs without them would be wrong.
    const bool isDenied = code && InsideHresult(*code).value_or(*code) == kAccessDenied;
    const std::string_view words =
        isDenied ? "access was denied to an administrator: check the rights on the files, and the security product"
        : code   ? CodeInWords(*code)
                 : std::string_view();
    const std::string number = code ? DescribeCode(*code) : std::string();
    const bool isHresult = number.ends_with(')');
    return words.empty() ? (isHresult ? number : std::string()) : number + ": " + std::string(words);
}
}  // namespace repair
