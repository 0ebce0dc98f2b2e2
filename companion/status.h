// What the tool would do on this machine, without doing it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "companion/last_run.h"
#include "companion/log_facts.h"
#include "companion/machine_state.h"

namespace repair
{
struct Status
{
    MachineState machine;
    std::vector<StorePackage> storePackages;
    std::string server;  // folder of the download server
    std::optional<LastRun> lastRun;
    std::string_view verdict;  // an id, such as "due"
    int exitCode = 0;          // of the command
    std::string sentence;      // the verdict in words
    std::string source;        // of the installer: "driver-package", "download" or "store"; empty if none is needed
    std::string installer;     // its path or address
};

// Changes nothing and writes no log. Throws only on failed allocation.
Status FindStatus();

// Returns "desktop", "store" or "none".
std::string_view EditionName(const Edition& edition);

// docs/companion.md lists the keys.
nlohmann::ordered_json StatusAsJson(const Status& status);
}  // namespace repair
