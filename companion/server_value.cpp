#include "companion/server_value.h"

#include <algorithm>
#include <charconv>

#include "companion/ascii.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
// The tool's side of it; src/acquisition/constants.h has the same.
constexpr size_t kReleaseCharacters = 5;
constexpr std::string_view kRemoteFile = "/dwx2_install.txt";
constexpr size_t kLongestPart = 259;  // host name and path, in UTF-16 units

constexpr size_t kLongestHost = 253;  // names in DNS
constexpr size_t kLongestLabel = 63;
constexpr int kHttpPort = 80;
constexpr int kHttpsPort = 443;

struct Parts
{
    std::string_view scheme;
    std::string_view login;
    std::string_view host;
    std::string_view port;
    bool hasLogin = false;
    bool hasPort = false;
    std::string_view path;  // with query and fragment
};

Parts Split(std::string_view url)
{
    Parts parts;
    const size_t schemeEnd = url.find("://");
    parts.scheme = url.substr(0, schemeEnd);
    url.remove_prefix(schemeEnd + 3);
    const size_t authorityEnd = std::min(url.find_first_of("/\\?#"), url.size());
    parts.path = url.substr(authorityEnd);
    parts.host = url.substr(0, authorityEnd);
    const size_t login = parts.host.rfind('@');
    if (login != std::string_view::npos)
    {
        parts.hasLogin = true;
        parts.login = parts.host.substr(0, login);
        parts.host.remove_prefix(login + 1);
    }
    const size_t bracket = parts.host.starts_with('[') ? parts.host.find(']') : 0;
    const size_t colon = parts.host.find(':', bracket == std::string_view::npos ? 0 : bracket);
    if (colon != std::string_view::npos)
    {
        parts.hasPort = true;
        parts.port = parts.host.substr(colon + 1);
        parts.host = parts.host.substr(0, colon);
    }
    return parts;
}

bool HasLongLabel(std::string_view host)
{
    while (!host.empty())
    {
        const size_t length = std::min(host.find('.'), host.size());
        if (length > kLongestLabel)
        {
            return true;
        }
        host.remove_prefix(std::min(host.size(), length + 1));
    }
    return false;
}

// "24.20/" at the end: somebody has appended the release, which the tool does.
bool EndsWithRelease(std::string_view value)
{
    if (value.ends_with('/'))
    {
        value.remove_suffix(1);
    }
    const std::string_view last = value.substr(value.rfind('/') + 1);
    return last.size() == kReleaseCharacters && last[2] == '.' &&
           std::ranges::all_of(std::string{last[0], last[1], last[3], last[4]}, IsAsciiDigit);
}

class Lint
{
public:
    Lint(std::string_view value, ServerValue& result) : value_(value), result_(result) {}

    void Characters()
    {
        if (value_.find_first_of(" \t") != std::string_view::npos)
        {
            Error("there is a blank in it, which the tool does not take out");
        }
        if (std::ranges::any_of(value_, [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\t'; }))
        {
            Error("there is a control character in it");
        }
        if (value_.find('\\') != std::string_view::npos)
        {
            Error("there is a backslash in it: addresses have /");
        }
        if (std::ranges::any_of(value_, [](char c) { return static_cast<unsigned char>(c) >= 0x80; }))
        {
            Warning("there are characters in it that are not ASCII: write host names as xn--... and others as %XX");
        }
    }

    void Scheme(const Parts& parts)
    {
        isHttps_ = EqualNoCase(parts.scheme, "https");
        isHttp_ = EqualNoCase(parts.scheme, "http");
        if (!isHttp_ && !isHttps_)
        {
            Error("it begins with neither https:// nor http://");
        }
    }

    void Host(const Parts& parts)
    {
        if (parts.hasLogin)
        {
            Error("there is a user name in it: the tool does not use it but writes it into every log");
        }
        if (parts.host.empty())
        {
            Error("there is no host name in it");
        }
        if (parts.host.size() > kLongestHost || HasLongLabel(parts.host))
        {
            Error("the host name is too long: 253 characters at the most, 63 from dot to dot");
        }
    }

    void Port(const Parts& parts)
    {
        int port = isHttps_ ? kHttpsPort : kHttpPort;
        if (parts.hasPort)
        {
            const char* end = parts.port.data() + parts.port.size();
            const auto [stop, error] = std::from_chars(parts.port.data(), end, port);
            if (error != std::errc() || stop != end || port < 1 || port > 65535)
            {
                Error("what stands behind the colon is no port number from 1 to 65535");
                return;
            }
        }
        if (isHttps_ && port != kHttpsPort)
        {
            Error("https on another port than 443: the tool asks without TLS there");
        }
        if (isHttp_ && port == kHttpsPort)
        {
            Warning("http on port 443: the tool speaks TLS there, https:// would say so");
        }
        if (isHttp_ && port != kHttpsPort)
        {
            Warning("without TLS anybody on the way can replace the installer, which is run with administrator rights");
        }
    }

    void Path(const Parts& parts, const Parts& whole)
    {
        if (!value_.ends_with('/'))
        {
            Error("the / at the end is missing: the tool would ask for " + result_.url);
        }
        if (parts.path.find_first_of("?#") != std::string_view::npos)
        {
            Error("there is a ? or # in it: the tool appends its path behind");
        }
        const size_t length = LengthInUtf16(whole.path);
        if (length > kLongestPart)
        {
            Error("the path has " + std::to_string(length) + " characters with release and file name, " +
                  std::to_string(kLongestPart) + " are the most");
        }
        if (EndsWithRelease(value_))
        {
            Warning("it ends with a release: the tool appends that itself");
        }
    }

    void Error(std::string text) { result_.remarks.push_back({true, std::move(text)}); }
    void Warning(std::string text) { result_.remarks.push_back({false, std::move(text)}); }

private:
    std::string_view value_;
    ServerValue& result_;
    bool isHttp_ = false;
    bool isHttps_ = false;
};
}  // namespace

bool ServerValue::HasErrors() const
{
    return std::ranges::any_of(remarks, &Remark::isError);
}

ServerValue CheckServerValue(std::string_view value, std::string_view release)
{
    ServerValue result;
    result.url = std::string(value) + std::string(release.substr(0, kReleaseCharacters)) + std::string(kRemoteFile);
    Lint lint(value, result);
    if (value.empty())
    {
        lint.Error("it is empty, which does not mean the maker's server: remove the value for that");
        return result;
    }
    lint.Characters();
    if (value.find("://") == std::string_view::npos)
    {
        lint.Error("it is no address: it begins with neither https:// nor http://");
        return result;
    }
    const Parts parts = Split(value);
    lint.Scheme(parts);
    lint.Host(parts);
    lint.Port(parts);
    lint.Path(parts, Split(result.url));
    return result;
}
}  // namespace repair
