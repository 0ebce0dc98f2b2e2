// The names that this machine knows: its own, its domain's, those of its users.
#pragma once

#include "companion/redaction.h"

namespace repair
{
// Adds them to the redactor. A name that cannot be had is left out.
void AddMachineNames(Redactor& redactor);
}  // namespace repair
