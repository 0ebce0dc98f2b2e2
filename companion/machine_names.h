// The names known to this machine: its own, its domain's, and those of its users.
#pragma once

#include "companion/redaction.h"

namespace repair
{
// Adds them to the redactor. Leaves out a name that cannot be read.
void AddMachineNames(Redactor& redactor);
}  // namespace repair
