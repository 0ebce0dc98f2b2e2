#include "companion/log_facts.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "companion/ascii.h"
#include "companion/pattern.h"
#include "companion/server_value.h"

namespace repair
{
namespace
{
// Lines that no other program writes. Each run logs one of them, unless it ends in its first line.
constexpr std::string_view kOwnLines[] = {
    "Launched with command line: *",
    "Currently installed VLT is version [*] from driver version [*]",
    "Currently installed drivers on system:",
    "Another instance is running. Exiting.",
    "Unable to find installed Tavik display adapters. Exiting.",
    "User does not desktop VLT installed.",
    "User does not have VLT installed*",
    "UWP version is not installed",
    "Currently installed version of VLT is from the same release as the active driver.*",
    "Found dwx2-install.exe at [*]",
    "Unable to find dwx2-install.exe at [*]. Downloading*",
    "Unable to download dwx2_install.exe from web. Exiting.",
    "Unable to find *\\HL\\halden\\halden64\\dwx-next64.msi.",
    "Uninstalling installed *",
    "Installing *dwx-next64.msi",
    "Exception * when searching for UWP version of VLT",
    "Attempting to download and install the UWP version of VLT.",
    "Successfully installed the UWP version of VLT",
    "failed to install the UWP version of VLT",
    "\tException occured during installation. *",
    "\tException occured during the download of dwx2_install.exe. *",
};
constexpr std::string_view kCommandLine = "Launched with command line: ";
constexpr size_t kCutLine = 4;  // so many characters of the first line are enough, if the log ends there

// Returns whether the line begins and ends with these texts, and sets `between` to what is between them.
bool Cut(std::string_view line, std::string_view begin, std::string_view end, std::string& between)
{
    if (line.size() < begin.size() + end.size() || !line.starts_with(begin) || !line.ends_with(end))
    {
        return false;
    }
    between = line.substr(begin.size(), line.size() - begin.size() - end.size());
    return true;
}

// Removes the program from a command line.
std::string WithoutProgram(std::string_view commandLine)
{
    const size_t quote = commandLine.starts_with('"') ? commandLine.find('"', 1) : std::string_view::npos;
    const size_t end = commandLine.find(' ', quote == std::string_view::npos ? 0 : quote);
    const size_t begin = commandLine.find_first_not_of(' ', std::min(end, commandLine.size()));
    return begin == std::string_view::npos ? std::string() : std::string(commandLine.substr(begin));
}

// Returns what follows the switch "-Path": up to a blank, or between quotation marks.
std::string GivenFile(std::string_view switches)
{
    constexpr std::string_view kPath = "-path ";
    while (!switches.empty() && !StartsNoCase(switches, kPath))
    {
        switches.remove_prefix(1);
    }
    switches.remove_prefix(std::min(kPath.size(), switches.size()));
    const bool isQuoted = switches.starts_with('"');
    switches.remove_prefix(isQuoted ? 1 : 0);
    return std::string(switches.substr(0, switches.find(isQuoted ? '"' : ' ')));
}

using Numbers = std::array<int, 4>;

Numbers ToNumbers(std::string_view version)
{
    Numbers numbers = {};
    for (int& number : numbers)
    {
        const char* const end = version.data() + version.size();
        const std::from_chars_result read = std::from_chars(version.data(), end, number);
        version.remove_prefix(std::min(version.size(), static_cast<size_t>(read.ptr - version.data()) + 1));
    }
    return numbers;
}
}  // namespace

void LogFacts::Take(std::string_view line)
{
    const auto matches = [line](std::string_view pattern) { return MatchLine(pattern, line).matches; };
    isLog_ = isLog_ || std::ranges::any_of(kOwnLines, matches) ||
             (line.size() >= kCutLine && kCommandLine.starts_with(line));
    TakePackage(line);
    std::string text;
    constexpr std::string_view kDriver = "\t [";
    if (std::exchange(isDriverNext_, false) && line.starts_with(kDriver))
    {
        const size_t folder = std::min(line.rfind("] ["), line.size());
        const size_t release = folder == 0 ? std::string_view::npos : line.rfind("] [", folder - 1);
        driver_ =
            release == std::string_view::npos ? line.substr(0, 0) : line.substr(release + 3, folder - release - 3);
        adapter_ = driver_.empty() ? line.substr(0, 0) : line.substr(kDriver.size(), release - kDriver.size());
    }
    else if (matches("[*] - [*] is not an Tavik Display Adapter."))
    {
        constexpr size_t kMost = 100;
        const std::string_view name = line.substr(1, line.find("] - [") - 1);
        otherAdapters_ += otherAdapters_.size() + name.size() > kMost
                              ? std::string()
                              : (otherAdapters_.empty() ? "" : ", ") + std::string(name);
    }
    else if (!switches_ && Cut(line, kCommandLine, "", text))
    {
        switches_ = WithoutProgram(text);
    }
    else if (matches("Currently installed VLT is version [*] from driver version [*]"))
    {
        constexpr size_t kBegin = std::string_view("Currently installed VLT is version [").size();
        desktopVersion_ = line.substr(kBegin, line.find(']') - kBegin);
    }
    else if (line == "Currently installed drivers on system:")
    {
        isDriverNext_ = true;
    }
    else if (line == "User does not desktop VLT installed.")
    {
        hasNoDesktop_ = true;
    }
    else if (line == "UWP version is not installed" || line.starts_with("User does not have VLT installed."))
    {
        hasNoStore_ = true;
    }
    else if (matches("User has * - version *"))
    {
        constexpr std::string_view kBefore = " - version ";
        const size_t name = std::string_view("User has ").size();
        const size_t version = line.rfind(kBefore);
        storePackages_.push_back(
            {std::string(line.substr(name, version - name)), std::string(line.substr(version + kBefore.size()))});
    }
    else if (line == "\tThis version is disabled" && !storePackages_.empty())
    {
        storePackages_.back().isUsable = false;
    }
    else
    {
        TakeInstaller(line);
    }
}

void LogFacts::TakeInstaller(std::string_view line)
{
    std::string text;
    if (Cut(line, "Found dwx2-install.exe at [", "]", text))
    {
        source_ = "driver-package";
        installer_ = text;
        isDecided_ = true;
    }
    else if (Cut(line, "Unable to find dwx2-install.exe at [", "] from web.", text))
    {
        release_ = text.substr(text.rfind('[') + 1);
        source_ = "download";
        installer_ = InstallerAddress({}, release_);
        isDecided_ = true;
    }
    else if (Cut(line, "Change server to ", ".", text))
    {
        installer_ = InstallerAddress(text, release_);
    }
    else if (line == "Attempting to download and install the UWP version of VLT.")
    {
        source_ = "store";
        isDecided_ = true;
    }
    else if (line.starts_with("Currently installed version of VLT is from the same release"))
    {
        isDecided_ = true;
    }
    else if (MatchLine("Process * /NCRC /S *", line).matches)
    {
        constexpr size_t kBegin = std::string_view("Process ").size();
        startedInstaller_ = line.substr(kBegin, line.find(" /NCRC /S ") - kBegin);
        if (source_.empty() && switches_)
        {
            source_ = "given";
            installer_ = GivenFile(*switches_);
        }
    }
}

void LogFacts::TakePackage(std::string_view line)
{
    triedRemoval_ = triedRemoval_ || line.starts_with("Uninstalling installed ");
    if (line.starts_with("\tResult = "))
    {
        const bool hasFailed = MatchLine("\tResult = <failure>", line).matches;
        // Neither if the line is cut or damaged.
        const bool hasSucceeded = !hasFailed && MatchLine("\tResult = <result>", line).matches;
        wasRemoved_ = wasRemoved_ || (step_ == Step::kRemoval && hasSucceeded);
        wasKept_ =
            wasKept_ || (step_ == Step::kRemoval && !hasSucceeded) || (step_ == Step::kInstallation && !hasFailed);
        step_ = Step::kOther;
    }
    else if (line.starts_with("Uninstalling installed Halden "))
    {
        step_ = Step::kRemoval;
    }
    else if (MatchLine("Installing *dwx-next64.msi", line).matches)
    {
        step_ = Step::kInstallation;
    }
}

std::string LogFacts::Edition() const
{
    const bool isStore = std::ranges::any_of(storePackages_, &StorePackage::isUsable);
    return hasNoDesktop_ ? (isStore ? "store" : hasNoStore_ ? "none" : "") : isDecided_ ? "desktop" : "";
}

std::string LogFacts::Version() const
{
    if (!hasNoDesktop_)
    {
        return desktopVersion_;
    }
    Numbers highest = {};
    for (const StorePackage& package : storePackages_)
    {
        highest = package.isUsable ? std::max(highest, ToNumbers(package.version)) : highest;
    }
    const std::string release = std::to_string(highest[1]) + "." + std::to_string(highest[2]);
    return Edition() == "store" ? release.substr(0, kReleaseCharacters) : std::string();
}
}  // namespace repair
