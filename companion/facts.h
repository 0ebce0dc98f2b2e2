// facts.json of the collected archive: what a supporter asks about the machine. docs/companion.md lists the keys.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace repair
{
// What cannot be read is missing or null. Changes nothing. Throws only on failed allocation.
nlohmann::ordered_json FindFacts();
}  // namespace repair
