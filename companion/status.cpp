#include "companion/status.h"

#include <algorithm>
#include <exception>

#include <nlohmann/json.hpp>

#include "acquisition/local_installer.h"
#include "acquisition/server_folder.h"
#include "base/text.h"
#include "companion/failure.h"
#include "companion/pattern.h"
#include "companion/server_value.h"
#include "companion/tool_log.h"
#include "companion/unicode.h"

namespace repair
{
namespace
{
using Json = nlohmann::ordered_json;

constexpr std::pair<std::uint32_t, const char*> kFamilies[] = {
    {kMainProduct, "Halden"}, {kDvrProduct, "DVR"}, {kPxlProduct, "PXL"}};

bool HasLine(const Status& status, std::initializer_list<std::string_view> patterns)
{
    return std::ranges::any_of(status.machine.lines, [&](const std::string& line) {
        return std::ranges::any_of(patterns,
                                   [&](std::string_view pattern) { return MatchLine(pattern, line).matches; });
    });
}

std::vector<std::string> Families(std::uint32_t products)
{
    std::vector<std::string> names;
    for (const auto& [product, name] : kFamilies)
    {
        if ((products & product) != 0)
        {
            names.emplace_back(name);
        }
    }
    return names;
}

void Decide(Status& status, std::string_view verdict, int exitCode, std::string sentence)
{
    status.verdict = verdict;
    status.exitCode = exitCode;
    status.sentence = std::move(sentence);
}

// Where the tool would get the installer for the first driver.
void FindSource(Status& status)
{
    const DisplayDriverInfo& driver = status.machine.drivers.front();
    if (status.machine.installed.edition.isStore)
    {
        status.source = "store";
        return;
    }
    const std::wstring found = FindLocalInstaller(driver.driverFolder);
    status.source = found.empty() ? "download" : "driver-package";
    status.installer = found.empty() ? InstallerAddress(status.server, ToUtf8(driver.releaseBase)) : ToUtf8(found);
}

// The same questions in the same order as in the tool.
void FindVerdict(Status& status)
{
    const auto& [drivers, installed, lines] = status.machine;
    const std::uint32_t lost = status.lastRun ? LostProducts(*status.lastRun, installed.products) : 0;
    if (lost != 0)
    {
        std::string names;
        for (const std::string& name : Families(lost))
        {
            names += (names.empty() ? "" : ", ") + name;
        }
        return Decide(status, "recovery-pending", kStatusRecovery,
                      "recovery pending: the last run lost " + names + ", the next one tries to install it");
    }
    if (drivers.empty())
    {
        if (HasLine(status, {"Failed to call SetupDi*"}))
        {
            return Decide(status, "unknown", kFailed, "unknown: Windows does not list the adapters");
        }
        return HasLine(status, {"Unable to find ReleaseVersion regkey for *", "Failed to get SPDRP_DRIVER for *",
                                "Enumerating installed drivers for *"})
                   ? Decide(status, "no-usable-driver", kStatusNoUsableDriver,
                            "no usable driver: the adapter's has no release")
                   : Decide(status, "no-adapter", kStatusNoAdapter, "no adapter: Windows lists none of the maker");
    }
    const Edition& edition = installed.edition;
    if (!edition.isInstalled)
    {
        return HasLine(status, {"* when searching for UWP version of VLT", "* when enumerating info for *"})
                   ? Decide(status, "unknown", kFailed,
                            "unknown: there is no desktop edition, and Windows does not list the Store packages; start "
                            "as administrator")
                   : Decide(status, "not-installed", kStatusNotInstalled, "not installed: there is neither edition");
    }
    const std::string version = ToUtf8(edition.version);
    const std::string both = ToUtf8(ReleasePrefix(drivers.front().releaseBase)) + " driver, " +
                             (version.empty() ? "unknown version" : version) + " installed";
    if (IsSameRelease(drivers.front().releaseBase, edition.version))
    {
        return Decide(status, "up-to-date", kDone, "up to date: " + both);
    }
    try
    {
        FindSource(status);
    }
    catch (const std::exception& error)  // the tool would end with 3 here
    {
        return Decide(status, "unknown", kFailed, "unknown: " + ToUtf8(ExceptionText(error)));
    }
    Decide(status, "due", kStatusDue,
           "due: " + both + ", installer from " +
               (status.source == "download" ? status.installer
                : status.source == "store"  ? "the Microsoft Store"
                                            : "the driver package"));
}

Json LastRunAsJson(const LastRun& last)
{
    Json object;
    const std::pair<const char*, const std::wstring&> texts[] = {{"outcome", last.outcome},
                                                                 {"title", last.title},
                                                                 {"started", last.started},
                                                                 {"ended", last.ended},
                                                                 {"release", last.release},
                                                                 {"version_before", last.versionBefore},
                                                                 {"version_after", last.versionAfter},
                                                                 {"log", last.log}};
    for (const auto& [key, text] : texts)
    {
        object[key] = ToUtf8(text);
    }
    object["code"] = last.code;
    object["tool_code"] = last.toolCode ? Json(static_cast<std::int32_t>(*last.toolCode)) : Json();
    object["attempt"] = last.attempt;
    object["recovery_pending"] = last.recoveryPending;
    return object;
}
}  // namespace

Status FindStatus()
{
    Status status;
    status.machine = ReadMachineState();
    LogFacts facts;
    std::ranges::for_each(status.machine.lines, [&facts](const std::string& line) { facts.Take(line); });
    status.storePackages = facts.StorePackages();
    status.server = ToUtf8(GetServerFolder());
    status.lastRun = ReadLastRun();
    FindVerdict(status);
    TakeToolLog();  // of the server folder
    return status;
}

std::string_view EditionName(const Edition& edition)
{
    return !edition.isInstalled ? "none" : edition.isStore ? "store" : "desktop";
}

Json StatusAsJson(const Status& status)
{
    const auto& [drivers, installed, lines] = status.machine;
    Json object;
    object["verdict"] = status.verdict;
    object["sentence"] = status.sentence;
    object["adapters"] = Json::array();
    for (const DisplayDriverInfo& driver : drivers)
    {
        object["adapters"].push_back({{"id", ToUtf8(driver.instanceId)},
                                      {"description", ToUtf8(driver.description)},
                                      {"release", ToUtf8(driver.releaseVersion)},
                                      {"problem", driver.problemCode},
                                      {"package", ToUtf8(driver.driverFolder)}});
    }
    object["edition"] = EditionName(installed.edition);
    object["version"] = installed.edition.isInstalled ? ToUtf8(installed.edition.version) : "";
    object["desktop"] = {{"version", ToUtf8(installed.desktopVersion)},
                         {"driver_version", ToUtf8(installed.desktopDriverVersion)},
                         {"families", Families(installed.products)}};
    object["store"] = Json::array();
    for (const StorePackage& package : status.storePackages)
    {
        object["store"].push_back({{"name", package.name}, {"version", package.version}, {"usable", package.isUsable}});
    }
    object["server"] = status.server;
    object["source"] = status.source.empty() ? Json() : Json(status.source);
    object["installer"] = status.installer.empty() ? Json() : Json(status.installer);
    object["last_run"] = status.lastRun ? LastRunAsJson(*status.lastRun) : Json();
    object["inventory"] = lines;
    return object;
}
}  // namespace repair
