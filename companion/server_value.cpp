#include "companion/server_value.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "companion/ascii.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
// As in src/acquisition/constants.h.
constexpr std::string_view kRemoteFile = "/dwx2_install.txt";
constexpr std::string_view kMakersFolder = "https://" TAVIK_DOWNLOAD_HOST "/drivers/installer/vlt/";
constexpr size_t kLongestPart = 259;  // host name and path, in UTF-16 units

constexpr size_t kLongestHost = 253;  // names in DNS
constexpr size_t kLongestLabel = 63;
constexpr int kHttpPort = 80;
constexpr int kHttpsPort = 443;

// What the tool appends to the folder.
std::string OfRelease(std::string_view release)
{
    return std::string(release.substr(0, kReleaseCharacters)) + std::string(kRemoteFile);
}

struct Parts
{
    std::string_view scheme;
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

// Whether the value ends with a release such as "24.20/".
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

// Returns nothing for a port that is not a number from 1 to 65535.
std::optional<int> ReadPort(std::string_view text)
{
    int port = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    const bool isValid = error == std::errc() && stop == end && port >= 1 && port <= 65535;
    return isValid ? std::optional(port) : std::nullopt;
}

class Remarks
{
public:
    void Error(bool applies, std::string text) { Add(applies, true, std::move(text)); }
    void Warning(bool applies, std::string text) { Add(applies, false, std::move(text)); }
    std::vector<Remark> Take() { return std::move(remarks_); }

private:
    void Add(bool applies, bool isError, std::string text)
    {
        if (applies)
        {
            remarks_.push_back({isError, std::move(text)});
        }
    }

    std::vector<Remark> remarks_;
};

void CheckCharacters(std::string_view value, Remarks& remarks)
{
    const auto contains = [value](auto isSuch) { return std::ranges::any_of(value, isSuch); };
    remarks.Error(contains([](char c) { return c == ' ' || c == '\t'; }), "it contains a blank: remove it");
    remarks.Error(contains([](unsigned char c) { return c < 0x20 && c != '\t'; }),
                  "it contains a control character: remove it");
    remarks.Error(contains([](char c) { return c == '\\'; }), "it contains a backslash: write / instead");
    remarks.Warning(contains([](unsigned char c) { return c >= 0x80; }),
                    "it contains characters that are not ASCII: write host names as xn--... and others as %XX");
}

void CheckHost(const Parts& parts, Remarks& remarks)
{
    remarks.Error(parts.hasLogin,
                  "it contains a user name: remove it, the tool does not use it but writes it into every log");
    remarks.Error(parts.host.empty(), "it has no host name");
    remarks.Error(parts.host.size() > kLongestHost || HasLongLabel(parts.host),
                  "the host name is too long: at most 253 characters, and 63 between two dots");
}

// The port alone decides whether the tool uses TLS.
void CheckSchemeAndPort(const Parts& parts, Remarks& remarks)
{
    const bool isHttps = EqualNoCase(parts.scheme, "https");
    const bool isHttp = EqualNoCase(parts.scheme, "http");
    const std::optional<int> port = parts.hasPort ? ReadPort(parts.port) : isHttps ? kHttpsPort : kHttpPort;
    remarks.Error(!isHttp && !isHttps, "it begins with neither https:// nor http://");
    remarks.Error(!port, "the port is not a number from 1 to 65535");
    if (port)
    {
        remarks.Error(isHttps && port != kHttpsPort, "https on another port than 443: the tool uses no TLS there");
        remarks.Warning(isHttp && port == kHttpsPort, "http on port 443: the tool uses TLS there, so write https://");
        remarks.Warning(isHttp && port != kHttpsPort,
                        "without TLS anyone on the network can replace the installer, which runs with administrator "
                        "rights");
    }
}

void CheckPath(std::string_view value, const std::string& url, Remarks& remarks)
{
    remarks.Error(!value.ends_with('/'), "the / at the end is missing: the tool would ask for " + url);
    remarks.Error(Split(value).path.find_first_of("?#") != std::string_view::npos,
                  "it contains ? or #: the tool appends its path after that");
    const size_t length = LengthInUtf16(Split(url).path);
    remarks.Error(length > kLongestPart, "the path has " + std::to_string(length) +
                                             " characters with release and file name; at most " +
                                             std::to_string(kLongestPart) + " are allowed");
    remarks.Warning(EndsWithRelease(value), "it ends with a release: remove it, the tool appends the release itself");
}
}  // namespace

bool ServerValue::HasErrors() const
{
    return std::ranges::any_of(remarks, &Remark::isError);
}

std::string InstallerAddress(std::string_view folder, std::string_view release)
{
    return std::string(folder.empty() ? kMakersFolder : folder) + OfRelease(release);
}

ServerValue CheckServerValue(std::string_view value, std::string_view release)
{
    ServerValue result;
    result.url = std::string(value) + OfRelease(release);
    Remarks remarks;
    const bool isAddress = value.find("://") != std::string_view::npos;
    CheckCharacters(value, remarks);
    remarks.Error(value.empty(), "it is empty, which does not select the maker's server: delete the value for that");
    remarks.Error(!value.empty() && !isAddress, "it is not an address: it begins with neither https:// nor http://");
    if (isAddress)
    {
        const Parts parts = Split(value);
        CheckSchemeAndPort(parts, remarks);
        CheckHost(parts, remarks);
        CheckPath(value, result.url, remarks);
    }
    result.remarks = remarks.Take();
    return result;
}
}  // namespace repair
