// The main flow: does the installed application belong to the active driver's release?
#pragma once

namespace repair
{
// Runs the check and, if needed or forced, the repair. Shows the status window and the result message unless silent.
// Returns the process exit code: -1 for an early exit, otherwise the repair's result. Uncaught exceptions pass through.
int RunCompatibilityCheck();
}  // namespace repair
